// The controller over a real tty: a pty pair with the simulated chip on the other side, in
// real time.
#include <gtest/gtest.h>

#include <cstring>

#include "sim/chip/chip.h"
#include "sim/uart/controller.h"
#include "sim/uart/tty_line.h"

namespace mvgps::sim::uart
{
namespace
{

using Bytes = std::vector<std::uint8_t>;
constexpr sched::Nanos kMs = sched::kMillisecond;

template <class T>
NTSTATUS control(io::LowerFile& file, ULONG code, const T& value)
{
    Bytes in(sizeof value);
    std::memcpy(in.data(), &value, sizeof value);
    auto r = io::IoRequest::make(io::Major::DeviceControl, code, in, {});
    file.dispatch(r);
    r->wait(sched::kForever);
    return r->status();
}

struct PtyWorld {
    PtyWorld() : install(sched::make_realtime())
    {
        std::string error;
        opened = TtyLine::open_pair(chip_side, port_side, error);
        EXPECT_TRUE(opened) << error;
        if (!opened) {
            return;
        }
        chip::ChipConfig cfg;
        cfg.nmea_on = false;
        chip = std::make_unique<chip::Chip>(*chip_side, cfg);
        ControllerConfig port;
        port.line = {921600, {}};
        controller = std::make_unique<SerialController>(*port_side, port);
        EXPECT_EQ(controller->open({}, file), STATUS_SUCCESS);
    }

    sched::Install install;
    bool opened = false;
    std::unique_ptr<TtyLine> chip_side;
    std::unique_ptr<TtyLine> port_side;
    std::unique_ptr<chip::Chip> chip;
    std::unique_ptr<SerialController> controller;
    std::unique_ptr<io::LowerFile> file;
};

TEST(TtyLine, CommandAndAnswerCrossAPty)
{
    PtyWorld w;
    ASSERT_TRUE(w.opened);
    ASSERT_EQ(control(*w.file, IOCTL_SERIAL_SET_TIMEOUTS, SERIAL_TIMEOUTS{10, 0, 0, 0, 0}),
              STATUS_SUCCESS);
    const Bytes command = chip::encode({0xFF, 2, true, {}});
    auto write = io::IoRequest::make(io::Major::Write, 0, command, {});
    w.file->dispatch(write);
    ASSERT_TRUE(write->wait(sched::current().now() + sched::kSecond));
    EXPECT_EQ(write->status(), STATUS_SUCCESS);
    EXPECT_EQ(write->information(), command.size());

    chip::FrameParser parser;
    bool acknowledged = false;
    int status_frames = 0;
    int interval_endings = 0;
    const sched::Nanos give_up = sched::current().now() + 2 * sched::kSecond;
    while ((!acknowledged || status_frames < 3) && sched::current().now() < give_up) {
        Bytes buffer(2048);
        auto read = io::IoRequest::make(io::Major::Read, 0, {}, buffer);
        w.file->dispatch(read);
        ASSERT_TRUE(read->wait(give_up + sched::kSecond));
        interval_endings += read->status() == STATUS_TIMEOUT && read->information() > 0;
        parser.feed(std::span(buffer).first(read->information()),
                    [&](const chip::Frame& f, chip::FrameParser::Verdict v) {
                        ASSERT_EQ(v, chip::FrameParser::Verdict::Good);
                        if (f.pid == 0xFF && f.sid == 2) {
                            acknowledged = f.payload == Bytes{0, 0, 0, 0};
                        }
                        status_frames += f.pid == chip::kPidStatus;
                    });
    }
    EXPECT_TRUE(acknowledged);
    EXPECT_GE(status_frames, 3);
    EXPECT_GT(interval_endings, 0) << "reads end by the interval timer";
    EXPECT_FALSE(w.chip->state().nmea_on);
}

TEST(TtyLine, PurgeCancelsAPendingRead)
{
    PtyWorld w;
    ASSERT_TRUE(w.opened);
    w.chip->set_power(false);
    ASSERT_EQ(control(*w.file, IOCTL_SERIAL_SET_TIMEOUTS, SERIAL_TIMEOUTS{10, 0, 0, 0, 0}),
              STATUS_SUCCESS);
    ASSERT_EQ(control(*w.file, IOCTL_SERIAL_PURGE, ULONG{SERIAL_PURGE_RXCLEAR}), STATUS_SUCCESS);
    Bytes buffer(64);
    auto read = io::IoRequest::make(io::Major::Read, 0, {}, buffer);
    w.file->dispatch(read);
    EXPECT_FALSE(read->wait(sched::current().now() + 30 * kMs)) << "no byte, no end";
    ASSERT_EQ(control(*w.file, IOCTL_SERIAL_PURGE, ULONG{SERIAL_PURGE_RXABORT}), STATUS_SUCCESS);
    ASSERT_TRUE(read->completed());
    EXPECT_EQ(read->status(), STATUS_CANCELLED);
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
    EXPECT_EQ(b->settings(), (LineSettings{115200, {7, 2, 2}}));
    EXPECT_FALSE(b->configure({14400, {}})) << "no termios speed for it";
    EXPECT_FALSE(b->configure({9600, {9, 0, 0}}));
    EXPECT_EQ(b->settings(), (LineSettings{115200, {7, 2, 2}}));
}

} // namespace
} // namespace mvgps::sim::uart
