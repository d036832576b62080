// What happens to each frame the chip sends: the acknowledgement a sender waits for, the copy
// queued for readers, the answer to a pending raw command.
#include "data_path_fixture.h"

namespace mvgps::test
{
namespace
{

using sim::chip::Fault;

Bytes ack_frame(std::uint8_t pid, std::uint8_t sid, std::uint32_t err_status = 0)
{
    return sim::chip::encode(Frame{pid, sid, true, sim::testkit::le32(err_status)});
}

TEST_F(DataPath, AcknowledgementIsAlsoQueuedForReaders)
{
    start_with_chip();
    auto pending = read();
    ASSERT_EQ(xfer(0x22, 5, {1}), 0);
    ASSERT_TRUE(pending->wait(now() + 100 * kMillisecond));
    ASSERT_EQ(pending->status(), STATUS_SUCCESS);
    EXPECT_EQ(parse_read(pending->output(), pending->information()).frame, ack_frame(0x22, 5));
}

TEST_F(DataPath, StatusFramesAreNeverQueued)
{
    start_with_chip();
    auto pending = read();
    run_for(300 * kMillisecond);
    EXPECT_GE(chip().stats().status_sent, 10u);
    EXPECT_FALSE(pending->done());
    EXPECT_EQ(peek(ext().ReadDataCount), 0);
}

struct RawCase {
    const char* name;
    std::uint8_t pid;
    std::uint8_t sid;
    std::size_t out_slack; // output bytes beyond the answer; -1 is one short
    NTSTATUS status;
    bool queued; // whether a reader also gets the answer
    friend void PrintTo(const RawCase& c, std::ostream* os) { *os << c.name; }
};

class RawCommands : public DataPath, public testing::WithParamInterface<RawCase>
{
};

// The chip answers an unknown command (pid 50 here) with err_status 1 under the same ids.
TEST_P(RawCommands, PendingRequestIsCompletedByTheMatchingAnswer)
{
    const RawCase& c = GetParam();
    start_with_chip();
    Bytes answer = ack_frame(c.pid, c.sid, c.pid == HCI_PID_STATUS ? 1 : 0);
    auto reader = read();
    auto cmd = send_cmd(c.pid, c.sid, {1}, answer.size() + c.out_slack);
    ASSERT_TRUE(cmd->wait(now() + 100 * kMillisecond));
    EXPECT_EQ(cmd->status(), c.status);
    if (c.status == STATUS_SUCCESS) {
        EXPECT_EQ(cmd->information(), answer.size());
        EXPECT_EQ(Bytes(cmd->output().begin(), cmd->output().begin() + answer.size()), answer);
    } else {
        EXPECT_EQ(cmd->information(), 0u);
    }
    EXPECT_EQ(reader->wait(now() + 50 * kMillisecond), c.queued);
    EXPECT_EQ(peek(ext().CMD_Request), nullptr);
}

INSTANTIATE_TEST_SUITE_P(
    DataPath, RawCommands,
    testing::Values(RawCase{"fits", 0x22, 5, 0, STATUS_SUCCESS, true},
                    RawCase{"roomy", 0x22, 5, 100, STATUS_SUCCESS, true},
                    RawCase{"one_short", 0x22, 5, static_cast<std::size_t>(-1),
                            STATUS_BUFFER_TOO_SMALL, true},
                    RawCase{"status_pid", HCI_PID_STATUS, 0, 0, STATUS_SUCCESS, false}),
    [](const testing::TestParamInfo<RawCase>& info) { return std::string(info.param.name); });

TEST_F(DataPath, RepeatedAnswerCompletesTheRequestOnce)
{
    start_with_chip();
    chip().inject(Fault::duplicate_ack(1));
    auto cmd = send_cmd(0x22, 5, {1}, 64);
    ASSERT_TRUE(cmd->wait(now() + 100 * kMillisecond));
    run_for(50 * kMillisecond);
    EXPECT_EQ(cmd->status(), STATUS_SUCCESS);
    EXPECT_NE(log().find("FdoExtension CMD_Request is NULL"), std::string::npos);
}

TEST_F(DataPath, AnswerWithNoPendingRequestOnlyLogs)
{
    start_with_chip();
    WriteUCharRelease(&ext().CMD_Pid, 0x22);
    WriteUCharRelease(&ext().CMD_Sid, 5);
    ASSERT_EQ(xfer(0x22, 5, {1}), 0);
    run_for(5 * kMillisecond); // the read thread finishes with the frame
    EXPECT_NE(log().find("FdoExtension CMD_Request is NULL"), std::string::npos);
}

TEST_F(DataPath, AnswerWithOtherSidDoesNotEndTheWait)
{
    start_with_peer();
    keep_alive();
    LONG result;
    xfer_async(0x22, 5, {1}, &result);
    ASSERT_TRUE(peer().await(0x22, 5, 500 * kMillisecond));
    peer().send(Frame{0x22, 6, true, sim::testkit::le32(0)});
    run_for(500 * kMillisecond);
    EXPECT_EQ(peek(ext().WaitAck_flag), 1);
    peer().send(Frame{0x22, 5, true, sim::testkit::le32(0)});
    EXPECT_TRUE(wait_until([&] {
        sched::StateLock lock(sched::current());
        return result == 0;
    }));
    stop_keep_alive();
}

// A matching acknowledgement longer than AckBuffer is kept cut at the buffer's size: the sender
// still finds err_status and gets at most that many bytes.
TEST_F(DataPath, OversizedAcknowledgementIsCutAtTheBuffer)
{
    start_with_peer();
    keep_alive();
    LONG result;
    Bytes answer;
    xfer_async(0x22, 5, {1}, &result, &answer);
    ASSERT_TRUE(peer().await(0x22, 5, 500 * kMillisecond));
    stop_keep_alive();
    Bytes payload = sim::testkit::le32(0);
    payload.resize(3000, 0x5A);
    Bytes frame = sim::chip::encode(Frame{0x22, 5, true, payload});
    // Two runs of under 2048 bytes with a quiet interval between, as two reads see them.
    peer().send_raw(std::span(frame).first(1500));
    run_for(30 * kMillisecond);
    peer().send_raw(std::span(frame).subspan(1500));
    ASSERT_TRUE(wait_until([&] {
        sched::StateLock lock(sched::current());
        return result != INT32_MIN;
    }));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(ext().AckLength, FDO_ACK_BUFFER_SIZE);
    EXPECT_EQ(answer, Bytes(frame.begin(), frame.begin() + FDO_ACK_BUFFER_SIZE));
}

} // namespace
} // namespace mvgps::test
