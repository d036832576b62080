// The read thread's life against a scripted peer: it lives while every read ends by the
// interval timer with data, and each other ending stops it.
#include "data_path_fixture.h"

namespace mvgps::test
{
namespace
{

Frame sentence_frame(int n)
{
    std::string text = "$GPTXT,01,01,02,frame " + std::to_string(n) + "*00\r\n";
    return Frame{0x31, 0, true, Bytes(text.begin(), text.end())};
}

TEST_F(DataPath, ReadEndsTenMillisecondsAfterTheLineFallsQuiet)
{
    start_with_peer();
    keep_alive();
    auto pending = read();
    run_for(5 * kMillisecond);
    peer().send(sentence_frame(1));
    sched::Nanos sent = now();
    ASSERT_TRUE(pending->wait(now() + 100 * kMillisecond));
    EXPECT_EQ(parse_read(pending->output(), pending->information()).frame,
              sim::chip::encode(sentence_frame(1)));
    // The frame's 40-odd bytes take about 0.5 ms at this rate; then the 10 ms interval.
    EXPECT_GE(now() - sent, 10 * kMillisecond);
    if (simulated()) {
        EXPECT_LE(now() - sent, 13 * kMillisecond);
    }
    EXPECT_FALSE(read_thread_ended());
    EXPECT_GE(uart().stats().read_timeouts, 1u);
    stop_keep_alive();
}

TEST_F(DataPath, SilentLineEndsTheThreadAfterTheSendTimeout)
{
    start_with_peer();
    sched::Nanos started = now();
    ASSERT_TRUE(wait_until([&] { return read_thread_ended(); }, 200 * kMillisecond));
    // The first read went out while the device was being brought up, just before `started`.
    EXPECT_GE(now() - started, 40 * kMillisecond);
    EXPECT_LE(now() - started, 55 * kMillisecond);
    EXPECT_NE(log().find("Read COM: status(0xc00000b5)BytesRead(0)"), std::string::npos);
}

TEST_F(DataPath, FullReadEndsTheThreadWithoutHandingTheBytesOn)
{
    start_with_peer();
    auto pending = read();
    Bytes burst;
    for (int i = 0; burst.size() < 2100; i++) {
        Bytes f = sim::chip::encode(sentence_frame(i));
        burst.insert(burst.end(), f.begin(), f.end());
    }
    peer().send_raw(burst);
    ASSERT_TRUE(wait_until([&] { return read_thread_ended(); }, 200 * kMillisecond));
    EXPECT_NE(log().find("Read COM: status(0x0)BytesRead(2048)"), std::string::npos);
    run_for(50 * kMillisecond);
    EXPECT_FALSE(pending->done());
    EXPECT_EQ(log().find("+++local_process_pkt"), std::string::npos);
}

TEST_F(DataPath, PurgeCancelsTheReadAndGatesLaterReads)
{
    start_with_peer();
    keep_alive();
    run_for(30 * kMillisecond);
    ULONG purge = SERIAL_PURGE_RXABORT | SERIAL_PURGE_RXCLEAR;
    ASSERT_TRUE(ops().SerialSend(ext().UartIoTarget, IOCTL_SERIAL_PURGE, sizeof(purge), &purge));
    ASSERT_TRUE(wait_until([&] { return read_thread_ended(); }, 100 * kMillisecond));
    EXPECT_NE(log().find("Read COM: cancelled break;"), std::string::npos);
    EXPECT_EQ(peek(ext().ReadEnable_flag), 0u);

    // Reads are off: nothing reaches the port, the call succeeds with no bytes.
    std::uint64_t reads_before = uart().stats().reads;
    UCHAR buffer[16];
    ULONG_PTR count = 99;
    EXPECT_EQ(ops().HalRead(ext().UartIoTarget, ext().UartRequest, 0, sizeof(buffer), buffer,
                            &count, &ext()),
              STATUS_SUCCESS);
    EXPECT_EQ(count, 0u);
    run_for(30 * kMillisecond);
    EXPECT_EQ(uart().stats().reads, reads_before);

    // Switched back on by a new thread, frames flow again.
    ASSERT_EQ(ops().RestartReadThread(&ext()), STATUS_SUCCESS);
    auto pending = read();
    run_for(5 * kMillisecond);
    peer().send(sentence_frame(2));
    EXPECT_TRUE(pending->wait(now() + 100 * kMillisecond));
    stop_keep_alive();
}

TEST_F(DataPath, ClearedFlagEndsTheThreadAfterTheChunkInHand)
{
    start_with_peer();
    auto pending = read();
    run_for(5 * kMillisecond);
    WriteULongRelease(&ext().Threadread_flag, 0);
    peer().send(sentence_frame(3));
    ASSERT_TRUE(pending->wait(now() + 100 * kMillisecond));
    ASSERT_TRUE(wait_until([&] { return read_thread_ended(); }, 100 * kMillisecond));
    EXPECT_NE(log().find("Threadread_flag is NULL"), std::string::npos);
    std::uint64_t reads = uart().stats().reads;
    run_for(100 * kMillisecond);
    EXPECT_EQ(uart().stats().reads, reads);
}

// The answer to a 2048-byte read is 2062 bytes; sent in two runs with a pause between, each
// read ends by the interval timer and the answer is reassembled whole.
TEST_F(DataPath, LargestMemoryReadFitsTheAcknowledgementBuffer)
{
    start_with_peer();
    keep_alive();
    ops().SetEndianMode(HCI_LITTLE_ENDIAN);
    Bytes data(HCI_MEM_READ_MAX);
    for (std::size_t i = 0; i < data.size(); i++) {
        data[i] = static_cast<std::uint8_t>(i * 7);
    }
    struct Outcome {
        LONG result = INT32_MIN;
        Bytes out = Bytes(HCI_MEM_READ_MAX);
    };
    auto outcome = std::make_shared<Outcome>();
    helpers_.push_back(sched::current().spawn("reader", [this, outcome] {
        LONG r = ops().ReadMem(&ext(), 0x20000000, HCI_MEM_READ_MAX, outcome->out.data(), 0);
        sched::StateLock lock(sched::current());
        outcome->result = r;
    }));
    ASSERT_TRUE(peer().await(HCI_PID_MEM_READ, 0, 500 * kMillisecond));
    // The answer leaves as the chip sends it, with nothing between its two runs.
    stop_keep_alive();
    Bytes answer = sim::chip::encode(
        Frame{HCI_PID_MEM_READ, 0, true, sim::testkit::cat({sim::testkit::le32(0), data})});
    ASSERT_EQ(answer.size(), FDO_ACK_BUFFER_SIZE);
    // 1000 bytes take about 11 ms on the line; the pause after them is 15 ms.
    peer().send_raw(std::span(answer).first(1000));
    run_for(26 * kMillisecond);
    peer().send_raw(std::span(answer).subspan(1000));
    ASSERT_TRUE(wait_until([&] {
        sched::StateLock lock(sched::current());
        return outcome->result != INT32_MIN;
    }));
    EXPECT_EQ(outcome->result, 0);
    EXPECT_EQ(outcome->out, data);
}

// Removal stops the target, then the read thread, then the processing thread; frames keep
// arriving throughout, and none is queued once the processing thread has gone.
TEST_F(DataPath, StopOrderLeavesNoFrameBehind)
{
    start_with_chip(talking_chip());
    std::vector<std::shared_ptr<pnp::PendingIo>> reads;
    for (int i = 0; i < 3; i++) {
        reads.push_back(read(512));
    }
    run_for(1500 * kMillisecond);
    kernel::clear_debug_output();
    remove();

    // The read thread's last step comes before the processing thread is told to stop.
    std::string text = log();
    std::size_t read_end = text.find("Read COM: cancelled break;");
    std::size_t proc_flag = text.find("Thread_flag is NULL");
    std::size_t proc_end = text.find("OsSetSignal Threadprocess_FinishSignal");
    ASSERT_NE(proc_end, std::string::npos);
    EXPECT_LT(read_end, proc_flag);
    EXPECT_LT(proc_flag, proc_end);
    EXPECT_EQ(text.find("+++local_process_pkt", proc_flag), std::string::npos);
    // Nothing was left on the list for the teardown to drain.
    EXPECT_EQ(text.find("+IsListEmpty\n"), std::string::npos);
    for (auto& r : reads) {
        EXPECT_TRUE(r->done());
    }
}

} // namespace
} // namespace mvgps::test
