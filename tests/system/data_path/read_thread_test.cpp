// The read thread's life against a scripted peer: it lives while every read ends by the
// interval timer with data, and each other ending stops it. Then the stop order at removal
// and the serial control calls on the same target.
#include "data_path_fixture.h"

namespace mvgps::test
{
namespace
{

TEST_F(DataPath, ReadEndsTenMillisecondsAfterTheLineFallsQuiet)
{
    start_with_peer();
    keep_alive();
    auto pending = read();
    run_for(5 * kMillisecond);
    peer().send(sentence_frame(1));
    sched::Nanos sent = now();
    ASSERT_TRUE(pending->wait(now() + 100 * kMillisecond));
    EXPECT_EQ(read_frame(*pending), sim::chip::encode(sentence_frame(1)));
    // The frame's 40-odd bytes take about 0.5 ms at this rate; then the 10 ms interval.
    EXPECT_GE(now() - sent, 10 * kMillisecond);
    if (simulated()) {
        EXPECT_LE(now() - sent, 13 * kMillisecond);
    }
    EXPECT_FALSE(read_thread_ended());
    EXPECT_GE(uart().stats().read_timeouts, 1u);
}

TEST_F(DataPath, SilentLineEndsTheThreadAfterTheSendTimeout)
{
    start_with_peer();
    sched::Nanos started = now();
    ASSERT_TRUE(wait_until(read_thread_ended, 200 * kMillisecond));
    // The first read went out while the device was being brought up, just before `started`.
    EXPECT_GE(now() - started, 40 * kMillisecond);
    EXPECT_LE(now() - started, 55 * kMillisecond);
    EXPECT_TRUE(logged("Read COM: status(0xc00000b5)BytesRead(0)"));
}

TEST_F(DataPath, FullReadEndsTheThreadWithoutHandingTheBytesOn)
{
    start_with_peer();
    auto pending = read();
    Bytes burst;
    for (int i = 0; burst.size() < 2100; i++) {
        burst = sim::testkit::cat({burst, sim::chip::encode(sentence_frame(i))});
    }
    peer().send_raw(burst);
    ASSERT_TRUE(wait_until(read_thread_ended, 200 * kMillisecond));
    EXPECT_TRUE(logged("Read COM: status(0x0)BytesRead(2048)"));
    run_for(50 * kMillisecond);
    EXPECT_FALSE(pending->done());
    EXPECT_FALSE(logged("+++local_process_pkt"));
}

TEST_F(DataPath, PurgeCancelsTheReadAndGatesLaterReads)
{
    start_with_peer();
    keep_alive();
    run_for(30 * kMillisecond);
    ULONG purge = SERIAL_PURGE_RXABORT | SERIAL_PURGE_RXCLEAR;
    ASSERT_TRUE(ops().SerialSend(ext().UartIoTarget, IOCTL_SERIAL_PURGE, sizeof(purge), &purge));
    ASSERT_TRUE(wait_until(read_thread_ended, 100 * kMillisecond));
    EXPECT_TRUE(logged("Read COM: cancelled break;"));
    EXPECT_EQ(peek(ext().ReadEnable_flag), 0u);

    // Reads are off: nothing reaches the port, the call succeeds with no bytes.
    std::uint64_t reads_before = uart().stats().reads;
    UCHAR buffer[16];
    ULONG_PTR count = 99;
    EXPECT_EQ(ops().HalRead(ext().UartIoTarget, ext().UartRequest, 0, sizeof(buffer), buffer,
                            &count, &ext()),
              STATUS_SUCCESS);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(uart().stats().reads, reads_before);
}

TEST_F(DataPath, ClearedFlagEndsTheThreadAfterTheChunkInHand)
{
    start_with_peer();
    auto pending = read();
    run_for(5 * kMillisecond);
    WriteULongRelease(&ext().Threadread_flag, 0);
    peer().send(sentence_frame(3));
    keep_alive(); // the line stays busy: only the flag ends the thread
    ASSERT_TRUE(pending->wait(now() + 100 * kMillisecond));
    ASSERT_TRUE(wait_until(read_thread_ended, 100 * kMillisecond));
    EXPECT_TRUE(logged("Threadread_flag is NULL"));
    std::uint64_t reads = uart().stats().reads;
    run_for(100 * kMillisecond);
    EXPECT_EQ(uart().stats().reads, reads);
}

// The answer to a 2048-byte read arrives in two runs with a quiet interval between, each
// read ending by the interval timer, and is reassembled. An answer under another sid does
// not end the wait; an answer longer than the acknowledgement buffer is cut at its size,
// which still holds the whole 2048 bytes.
TEST_F(DataPath, LargestMemoryReadSurvivesAnOversizedAnswer)
{
    start_with_peer();
    keep_alive();
    Bytes data(HCI_MEM_READ_MAX);
    for (std::size_t i = 0; i < data.size(); i++) {
        data[i] = static_cast<std::uint8_t>(i * 7);
    }
    auto out = std::make_shared<Bytes>(HCI_MEM_READ_MAX);
    auto result = call_async([this, out] {
        return ops().ReadMem(&ext(), 0x20000000, HCI_MEM_READ_MAX, out->data(), 0);
    });
    ASSERT_TRUE(peer().await(HCI_PID_MEM_READ, 0, 500 * kMillisecond));
    peer().send(Frame{HCI_PID_MEM_READ, 1, true, le32(0)});
    run_for(100 * kMillisecond);
    EXPECT_EQ(peek(ext().WaitAck_flag), 1);

    stop_keep_alive();
    Bytes answer = sim::chip::encode(
        Frame{HCI_PID_MEM_READ, 0, true, sim::testkit::cat({le32(0), data, Bytes(900, 0x5A)})});
    peer().send_raw(std::span(answer).first(1500));
    run_for(30 * kMillisecond);
    peer().send_raw(std::span(answer).subspan(1500));
    ASSERT_TRUE(wait_until([&] { return returned(*result); }));
    EXPECT_EQ(*result, 0);
    EXPECT_EQ(*out, data);
    EXPECT_EQ(ext().AckLength, FDO_ACK_BUFFER_SIZE);
}

// Removal stops the target, then the read thread, then the processing thread; frames keep
// arriving throughout, and none is queued once the processing thread has gone.
TEST_F(DataPath, StopOrderLeavesNoFrameBehind)
{
    start_with_chip(true);
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
}

// A control call the port takes returns its answer; refusals are among the log scenarios.
TEST_F(DataPath, SerialControlCallsReportThePortsAnswer)
{
    start_with_chip();
    SERIAL_BAUD_RATE rate = {0};
    EXPECT_TRUE(
        ops().SerialRead(ext().UartIoTarget, IOCTL_SERIAL_GET_BAUD_RATE, sizeof(rate), &rate));
    EXPECT_EQ(rate.BaudRate, DATA_PATH_DEFAULT_RATE);
}

} // namespace
} // namespace mvgps::test
