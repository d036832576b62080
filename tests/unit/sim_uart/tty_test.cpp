// The controller over a real tty: a pty pair with the simulated chip on the other side, in
// real time.
#include <gtest/gtest.h>

#include "sim/chip/chip.h"
#include "sim/uart/tty_line.h"
#include "sim_uart/port.h"

namespace mvgps::sim::uart
{
namespace
{

TEST(TtyLine, CommandAndAnswerCrossAPty)
{
    sched::Install install(sched::make_realtime());
    auto& s = sched::current();
    std::unique_ptr<TtyLine> chip_side;
    std::unique_ptr<TtyLine> port_side;
    std::string error;
    ASSERT_TRUE(TtyLine::open_pair(chip_side, port_side, error)) << error;
    chip::ChipConfig cfg;
    cfg.nmea_on = false;
    chip::Chip chip(*chip_side, cfg);
    SerialController controller(*port_side, port_at(921600));
    std::unique_ptr<io::File> file;
    ASSERT_EQ(controller.open({}, file), STATUS_SUCCESS);
    ASSERT_EQ(control(*file, IOCTL_SERIAL_SET_TIMEOUTS, times(10, 0, 0)), STATUS_SUCCESS);

    const auto write = write_frame(*file, {0xFF, 2, true, {}}, s.now() + sched::kSecond);
    EXPECT_EQ(write->status(), STATUS_SUCCESS);
    EXPECT_EQ(write->information(), 8u);

    chip::FrameParser parser;
    bool acknowledged = false;
    int status_frames = 0;
    int interval_endings = 0;
    const sched::Nanos give_up = s.now() + 2 * sched::kSecond;
    while ((!acknowledged || status_frames < 3) && s.now() < give_up) {
        const auto read = read_frames(
            *file, parser,
            [&](const chip::Frame& f, chip::FrameParser::Verdict v) {
                EXPECT_EQ(v, chip::FrameParser::Verdict::Good);
                acknowledged |= f == chip::Frame{0xFF, 2, true, {0, 0, 0, 0}};
                status_frames += f.pid == chip::kPidStatus;
            },
            give_up + sched::kSecond);
        interval_endings += read->status() == STATUS_TIMEOUT && read->information() > 0;
    }
    EXPECT_TRUE(acknowledged);
    EXPECT_GE(status_frames, 3);
    EXPECT_GT(interval_endings, 0) << "reads end by the interval timer";
    EXPECT_FALSE(chip.state().nmea_on);
}

TEST(TtyLine, RefusesWhatTheDeviceCannotDo)
{
    sched::Install install(sched::make_realtime());
    std::string error;
    EXPECT_EQ(TtyLine::open("/nonexistent/tty", error), nullptr);
    EXPECT_NE(error.find("/nonexistent/tty"), std::string::npos) << error;
    EXPECT_EQ(TtyLine::open("/dev/null", error), nullptr);
    EXPECT_NE(error.find("not a tty"), std::string::npos) << error;

    std::unique_ptr<TtyLine> a;
    std::unique_ptr<TtyLine> b;
    ASSERT_TRUE(TtyLine::open_pair(a, b, error)) << error;
    sched::StateLock lock(sched::current());
    EXPECT_TRUE(b->configure({115200, {7, 2, 2}}));
    EXPECT_FALSE(b->configure({14400, {}})) << "no termios speed for it";
    EXPECT_FALSE(b->configure({9600, {9, 0, 0}}));
    EXPECT_EQ(b->settings(), (LineSettings{115200, {7, 2, 2}}));
}

} // namespace
} // namespace mvgps::sim::uart
