// Commands with acknowledgement against the simulated chip: how often a command is written,
// what the sender gets back and how long it takes, for each way the chip may answer.
#include "data_path_fixture.h"

namespace mvgps::test
{
namespace
{

using sim::chip::Fault;

struct AckCase {
    const char* name;
    std::vector<Fault> faults;
    ULONG wait_ack;
    LONG result;
    std::size_t writes;
    sched::Nanos min_time;
    sched::Nanos max_time;
    friend void PrintTo(const AckCase& c, std::ostream* os) { *os << c.name; }
};

class Commands : public DataPath, public testing::WithParamInterface<AckCase>
{
};

// 0x22/5 is the receiver's option switch: a command the chip carries out and answers.
TEST_P(Commands, WritesAndResultFollowTheChipsAnswers)
{
    const AckCase& c = GetParam();
    start_with_chip();
    for (const Fault& f : c.faults) {
        chip().inject(f);
    }
    sched::Nanos start = now();
    EXPECT_EQ(xfer(0x22, 5, {1}, nullptr, c.wait_ack), c.result);
    sched::Nanos took = now() - start;
    run_for(20 * kMillisecond); // the last write reaches the chip

    EXPECT_EQ(chip_received(0x22).size(), c.writes);
    // Exact times are a property of the simulation; real time only adds to them.
    EXPECT_GE(took, c.min_time);
    if (simulated()) {
        EXPECT_LE(took, c.max_time);
    }
    EXPECT_EQ(peek(ext().WaitAck_flag), 0);
    EXPECT_EQ(peek(ext().DeviceAssocFinishSignal->State), OS_SIGNAL_CLEAR);
}

// An accepted answer reaches the sender when the read that carries it ends, 10 ms after
// the line falls quiet. A rejection leaves the signal set,
// so later attempts read the newest answer at once: after one rejection the chip's accepting
// answer to the second write is there when the third write's wait starts.
INSTANTIATE_TEST_SUITE_P(
    DataPath, Commands,
    testing::Values(
        AckCase{"accepted", {}, 1, 0, 1, 10 * kMillisecond, 15 * kMillisecond},
        AckCase{"not_awaited", {}, 0, 0, 1, 0, 5 * kMillisecond},
        AckCase{"rejected_once",
                {Fault::reject(1, 1)},
                1,
                0,
                3,
                100 * kMillisecond,
                150 * kMillisecond},
        AckCase{"always_rejected",
                {Fault::reject(5, 7)},
                1,
                0,
                5,
                250 * kMillisecond,
                300 * kMillisecond},
        AckCase{
            "lost_twice", {Fault::no_ack(2)}, 1, 0, 3, 2100 * kMillisecond, 2200 * kMillisecond},
        AckCase{"never_answered",
                {Fault::no_ack(5)},
                1,
                3,
                5,
                5250 * kMillisecond,
                5300 * kMillisecond}),
    [](const testing::TestParamInfo<AckCase>& info) { return std::string(info.param.name); });

TEST_F(DataPath, AcceptedAnswerIsCopiedWholeToTheSender)
{
    start_with_chip();
    Bytes answer;
    ASSERT_EQ(xfer(0x22, 5, {1}, &answer), 0);
    // A5, length, pid, sid, payload length 4, err_status 0 (little-endian), CRC, tail.
    Bytes expected = sim::chip::encode(Frame{0x22, 5, true, sim::testkit::le32(0)});
    answer.resize(expected.size());
    EXPECT_EQ(answer, expected);
}

TEST_F(DataPath, FailedWriteEndsTheCommandAtOnce)
{
    start_with_chip();
    chip().inject(Fault::no_ack(5));
    wdf::faults::add(wdf::faults::fail_nth_send(3, wdf::faults::Op::Write));
    sched::Nanos start = now();
    EXPECT_EQ(xfer(0x22, 5, {1}), -1);
    EXPECT_LT(now() - start, 2200 * kMillisecond);
    run_for(20 * kMillisecond);
    EXPECT_EQ(chip_received(0x22).size(), 2u);
    EXPECT_EQ(peek(ext().WaitAck_flag), 0);
    // The mutex was released: the next command goes through.
    EXPECT_EQ(xfer(0x22, 5, {1}), 0);
}

TEST_F(DataPath, CommandsFromSeveralThreadsAreSerialised)
{
    start_with_chip();
    LONG results[3];
    for (LONG& r : results) {
        xfer_async(0x22, 5, {1}, &r);
    }
    ASSERT_TRUE(wait_until([&] {
        sched::StateLock lock(sched::current());
        return results[0] != INT32_MIN && results[1] != INT32_MIN && results[2] != INT32_MIN;
    }));
    for (LONG r : results) {
        EXPECT_EQ(r, 0);
    }
    EXPECT_EQ(chip_received(0x22).size(), 3u);
}

} // namespace
} // namespace mvgps::test
