// Commands to the chip and what becomes of its answers: how often a command is written and
// what the sender gets back for each way the chip may answer, and the answer to a pending
// raw command (a repeated answer is among the log scenarios).
#include "data_path_fixture.h"

#include <optional>

namespace mvgps::test
{
namespace
{

struct AckCase {
    const char* name;
    std::optional<Fault> fault;
    ULONG wait_ack;
    LONG result;
    std::size_t writes;
    std::int64_t min_ms; // how long the command takes
    std::int64_t max_ms;
    friend void PrintTo(const AckCase& c, std::ostream* os) { *os << c.name; }
};

// An accepted answer reaches the sender when the read that carries it ends, 10 ms after
// the line falls quiet. A rejection leaves the signal set, so later attempts read the
// newest answer at once: after one rejection the chip's accepting answer to the second
// write is there when the third write's wait starts. Each unanswered write waits 1 s.
const AckCase kAckCases[] = {
    {"accepted", std::nullopt, 1, 0, 1, 10, 15},
    {"not_awaited", std::nullopt, 0, 0, 1, 0, 5},
    {"rejected_once", Fault::reject(1, 1), 1, 0, 3, 100, 150},
    {"always_rejected", Fault::reject(5, 7), 1, 0, 5, 250, 300},
    {"never_answered", Fault::no_ack(5), 1, 3, 5, 5250, 5300},
};

class Commands : public DataPath, public testing::WithParamInterface<AckCase>
{
};

// 0x22/5 is the receiver's option switch: a command the chip carries out and answers.
TEST_P(Commands, WritesAndResultFollowTheChipsAnswers)
{
    const AckCase& c = GetParam();
    start_with_chip();
    if (c.fault) {
        chip().inject(*c.fault);
    }
    sched::Nanos start = now();
    EXPECT_EQ(xfer(0x22, 5, {1}, c.wait_ack), c.result);
    sched::Nanos took = now() - start;
    run_for(20 * kMillisecond); // the last write reaches the chip

    EXPECT_EQ(chip_received(0x22).size(), c.writes);
    // Exact times are a property of the simulation; real time only adds to them.
    EXPECT_GE(took, c.min_ms * kMillisecond);
    if (simulated()) {
        EXPECT_LE(took, c.max_ms * kMillisecond);
    }
    EXPECT_EQ(peek(ext().WaitAck_flag), 0);
    EXPECT_EQ(peek(ext().DeviceAssocFinishSignal->State), OS_SIGNAL_CLEAR);
}

INSTANTIATE_TEST_SUITE_P(DataPath, Commands, testing::ValuesIn(kAckCases),
                         [](const testing::TestParamInfo<AckCase>& info) {
                             return std::string(info.param.name);
                         });

TEST_F(DataPath, FailedWriteEndsTheCommandAtOnce)
{
    start_with_chip();
    chip().inject(Fault::no_ack(5));
    wdf::faults::add(wdf::faults::fail_nth_send(3, wdf::faults::Op::Write));
    sched::Nanos start = now();
    EXPECT_EQ(xfer(0x22, 5), -1);
    EXPECT_LT(now() - start, 2200 * kMillisecond);
    run_for(20 * kMillisecond);
    EXPECT_EQ(chip_received(0x22).size(), 2u);
    EXPECT_EQ(peek(ext().WaitAck_flag), 0);
    // The mutex was released: the next command goes through.
    EXPECT_EQ(xfer(0x22, 5), 0);
}

// The answer goes to the pending raw command only if it fits whole, and to a reader too.
TEST_F(DataPath, PendingRawCommandIsCompletedByTheMatchingAnswer)
{
    start_with_chip();
    const Bytes answer = ack_frame(0x22, 5);
    for (std::size_t out : {answer.size(), answer.size() - 1}) {
        SCOPED_TRACE(out);
        auto reader = read();
        auto cmd = send_cmd(0x22, 5, out);
        ASSERT_TRUE(cmd->wait(now() + 100 * kMillisecond));
        if (out == answer.size()) {
            EXPECT_EQ(cmd->status(), STATUS_SUCCESS);
            EXPECT_EQ(Bytes(cmd->output().begin(), cmd->output().begin() + cmd->information()),
                      answer);
        } else {
            EXPECT_EQ(cmd->status(), STATUS_BUFFER_TOO_SMALL);
            EXPECT_EQ(cmd->information(), 0u);
        }
        ASSERT_TRUE(reader->wait(now() + 50 * kMillisecond));
        EXPECT_EQ(read_frame(*reader), answer);
        EXPECT_EQ(peek(ext().CMD_Request), nullptr);
    }
}

} // namespace
} // namespace mvgps::test
