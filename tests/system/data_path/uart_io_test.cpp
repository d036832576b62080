// Synchronous UART I/O on the opened target: serial control calls succeed only with exactly
// STATUS_SUCCESS, and a failed write leaves the caller's byte count alone.
#include "data_path_fixture.h"

namespace mvgps::test
{
namespace
{

struct SerialCase {
    const char* name;
    ULONG code;
    ULONG value;
    NTSTATUS injected; // STATUS_SUCCESS: none
    BOOLEAN result;
    const char* logged;
    friend void PrintTo(const SerialCase& c, std::ostream* os) { *os << c.name; }
};

class SerialControl : public DataPath, public testing::WithParamInterface<SerialCase>
{
};

TEST_P(SerialControl, OnlyExactSuccessCounts)
{
    const SerialCase& c = GetParam();
    start_with_chip();
    if (c.injected != STATUS_SUCCESS) {
        wdf::faults::add(wdf::faults::fail_control(c.code, c.injected));
    }
    kernel::clear_debug_output();
    ULONG value = c.value;
    EXPECT_EQ(ops().SerialSend(ext().UartIoTarget, c.code, sizeof(value), &value), c.result);
    if (c.logged != nullptr) {
        EXPECT_NE(log().find(c.logged), std::string::npos) << log();
    } else {
        EXPECT_EQ(log().find("SerialSendIoSync fail"), std::string::npos);
    }
}

INSTANTIATE_TEST_SUITE_P(
    DataPath, SerialControl,
    testing::Values(SerialCase{"rate", IOCTL_SERIAL_SET_BAUD_RATE, 921600, STATUS_SUCCESS, TRUE,
                               nullptr},
                    SerialCase{"rate_refused", IOCTL_SERIAL_SET_BAUD_RATE, 0, STATUS_SUCCESS, FALSE,
                               "SerialSendIoSync fail with 0xc000000d"},
                    SerialCase{"timed_out", IOCTL_SERIAL_PURGE, SERIAL_PURGE_RXCLEAR,
                               STATUS_IO_TIMEOUT, FALSE, "SerialSendIoSync fail with 0xc00000b5"}),
    [](const testing::TestParamInfo<SerialCase>& info) { return std::string(info.param.name); });

TEST_F(DataPath, SerialReadReturnsThePortsRate)
{
    start_with_chip();
    SERIAL_BAUD_RATE rate = {0};
    EXPECT_TRUE(
        ops().SerialRead(ext().UartIoTarget, IOCTL_SERIAL_GET_BAUD_RATE, sizeof(rate), &rate));
    EXPECT_EQ(rate.BaudRate, DATA_PATH_DEFAULT_RATE);
}

TEST_F(DataPath, WriteCountIsStoredOnlyOnSuccess)
{
    start_with_chip();
    Bytes frame = sim::chip::encode(Frame{0x22, 5, true, {1}});
    ULONG_PTR written = 77;
    EXPECT_EQ(ops().FdoWrite(ext().UartIoTarget, ext().UartRequest, 0,
                             static_cast<ULONG>(frame.size()), frame.data(), &written, 1),
              STATUS_SUCCESS);
    EXPECT_EQ(written, frame.size());

    wdf::faults::add(wdf::faults::fail_nth_send(1, wdf::faults::Op::Write));
    written = 77;
    EXPECT_EQ(ops().FdoWrite(ext().UartIoTarget, ext().UartRequest, 0,
                             static_cast<ULONG>(frame.size()), frame.data(), &written, 1),
              STATUS_UNSUCCESSFUL);
    EXPECT_EQ(written, 77u);

    // No buffer: the write goes down empty.
    EXPECT_EQ(ops().FdoWrite(ext().UartIoTarget, ext().UartRequest, 0, 4, nullptr, &written, 1),
              STATUS_SUCCESS);
    EXPECT_EQ(written, 0u);
}

} // namespace
} // namespace mvgps::test
