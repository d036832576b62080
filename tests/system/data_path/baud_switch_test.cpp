// The baud-rate switch end to end: the chip is told its new rate at the old one, the driver
// follows on the UART side, and frames flow again at the new rate, unless the port refused a
// setting, in which case reading stays stopped.
#include "data_path_fixture.h"

#include <cstdio>
#include <optional>

namespace mvgps::test
{
namespace
{

// Frames the receive path has handed over so far, as the log counts them.
std::size_t frames_handled()
{
    std::size_t n = 0;
    const std::string text = kernel::debug_output();
    for (std::size_t at = text.find("+++local_process_pkt"); at != std::string::npos;
         at = text.find("+++local_process_pkt", at + 1)) {
        n++;
    }
    return n;
}

struct SwitchCase {
    const char* name;
    std::uint32_t rate;
    bool tell_chip;               // the client's command to the chip, acknowledged at the old rate
    std::optional<ULONG> refused; // serial control code the port refuses
    LONG result;
    bool reading;
    bool after_refused_rate = false; // a switch that stopped early came first
    friend void PrintTo(const SwitchCase& c, std::ostream* os) { *os << c.name; }
};

const SwitchCase kSwitchCases[] = {
    {"to_115200", 115200, true, std::nullopt, 0, true},
    {"same_rate_again", DATA_PATH_DEFAULT_RATE, false, std::nullopt, 0, true},
    {"rate_refused", 12345, false, std::nullopt, -1, false},
    {"line_control_refused", 115200, true, IOCTL_SERIAL_SET_LINE_CONTROL, -1, false},
    {"handflow_refused", 115200, true, IOCTL_SERIAL_SET_HANDFLOW, 0, false},
    {"after_a_refused_rate", DATA_PATH_DEFAULT_RATE, false, std::nullopt, 0, true, true},
};

class BaudSwitch : public DataPath, public testing::WithParamInterface<SwitchCase>
{
  protected:
    LONG tell_chip(std::uint32_t rate) { return xfer(HCI_PID_BAUD_RATE, 0, le32(rate)); }
};

TEST_P(BaudSwitch, FramesFlowAtTheNewRateUnlessThePortRefused)
{
    const SwitchCase& c = GetParam();
    start_with_chip();
    if (c.after_refused_rate) {
        ASSERT_EQ(ops().ChangeBaudrate(&ext(), 12345, 0), -1);
    }
    if (c.tell_chip) {
        ASSERT_EQ(tell_chip(c.rate), 0);
    }
    if (c.refused) {
        wdf::faults::add(wdf::faults::fail_control(*c.refused));
    }
    EXPECT_EQ(ops().ChangeBaudrate(&ext(), c.rate, 0), c.result);
    EXPECT_TRUE(logged(("Set BaudRate(" + std::to_string(c.rate) + ")").c_str()));
    EXPECT_EQ(logged("Failed to set baudrate"), c.rate == 12345 || c.after_refused_rate);
    EXPECT_EQ(logged("Failed to set line control"),
              c.refused == ULONG{IOCTL_SERIAL_SET_LINE_CONTROL});
    wdf::faults::clear();

    std::size_t before = frames_handled();
    run_for(200 * kMillisecond);
    EXPECT_EQ(frames_handled() > before, c.reading);
    EXPECT_EQ(peek(ext().ReadThread) != nullptr, c.reading);
    if (c.reading) {
        EXPECT_EQ(uart().settings().rate, c.rate);
        EXPECT_EQ(xfer(0x22, 5), 0); // acknowledged at the new rate
    }
}

INSTANTIATE_TEST_SUITE_P(DataPath, BaudSwitch, testing::ValuesIn(kSwitchCases),
                         [](const testing::TestParamInfo<SwitchCase>& info) {
                             return std::string(info.param.name);
                         });

// What a client waits for: from its request (the command to the chip, then the driver's
// switch) to the first frame read at the new rate, 115200 to 921600 bit/s.
TEST_F(DataPath, BaudSwitchTimeToTheFirstFrameAtTheNewRate)
{
    start_with_chip();
    ASSERT_EQ(xfer(HCI_PID_BAUD_RATE, 0, le32(115200)), 0);
    ASSERT_EQ(ops().ChangeBaudrate(&ext(), 115200, 0), 0);
    run_for(100 * kMillisecond);

    sched::Nanos start = now();
    ASSERT_EQ(xfer(HCI_PID_BAUD_RATE, 0, le32(921600)), 0);
    ASSERT_EQ(ops().ChangeBaudrate(&ext(), 921600, 0), 0);
    sched::Nanos switched = now();
    std::size_t before = frames_handled();
    ASSERT_TRUE(wait_until([&] { return frames_handled() > before; }, 200 * kMillisecond));
    sched::Nanos first = now();
    std::printf("baud switch 115200 -> 921600: %.1f ms to the switch, %.1f ms to the first "
                "frame\n",
                (switched - start) / 1e6, (first - start) / 1e6);
    if (simulated()) {
        // The acknowledgement's read interval, the port calls, then the chip's next status
        // frame (every 25 ms) and its read interval.
        EXPECT_LT(first - start, 60 * kMillisecond);
    }
}

} // namespace
} // namespace mvgps::test
