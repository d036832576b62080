// `mvgps run --tty` end to end: the driver in the program talks to the simulated chip across
// a pty pair (this test runs the chip on the master side, in real time), and clients read
// the NMEA it delivers, from the program's NMEA pty and through its control socket.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <filesystem>

#include <nlohmann/json.hpp>

#include "control/control.h"
#include "sim/chip/chip.h"
#include "sim/uart/tty_line.h"
#include "program.h"
#include "tests/support/process.h"
#include "tools/mvgps/control_client.h"
#include "tools/ctl/decode.h"
#include "tools/mvgps/fix.h"

namespace mvgps::test
{
namespace
{

using namespace std::chrono_literals;

// An NMEA sentence whose checksum holds.
bool checksum_holds(const std::string& s)
{
    const auto star = s.rfind('*');
    if (s.size() < 4 || s[0] != '$' || star == std::string::npos || star + 3 > s.size()) {
        return false;
    }
    unsigned sum = 0;
    for (std::size_t i = 1; i < star; ++i) {
        sum ^= static_cast<unsigned char>(s[i]);
    }
    return std::stoul(s.substr(star + 1, 2), nullptr, 16) == sum;
}

// Up to `count` lines from a tty, for no longer than `limit`.
std::vector<std::string> read_lines(const std::string& path, std::size_t count,
                                    std::chrono::milliseconds limit)
{
    const int fd = open(path.c_str(), O_RDONLY | O_NOCTTY | O_NONBLOCK);
    std::vector<std::string> lines;
    std::string partial;
    wait_for(
        [&] {
            char chunk[512];
            for (ssize_t n; (n = read(fd, chunk, sizeof chunk)) > 0;) {
                partial.append(chunk, static_cast<std::size_t>(n));
            }
            for (std::size_t end; (end = partial.find("\r\n")) != std::string::npos;) {
                lines.push_back(partial.substr(0, end));
                partial.erase(0, end + 2);
            }
            return lines.size() >= count;
        },
        limit);
    close(fd);
    lines.resize(std::min(lines.size(), count));
    return lines;
}

TEST(Tty, DriverReadsTheChipAcrossAPtyAndClientsGetItsNmea)
{
    if (const std::string why = too_busy_for_real_time(); !why.empty()) {
        GTEST_SKIP() << why;
    }
    sched::Install realtime(sched::make_realtime());
    const int master = posix_openpt(O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    ASSERT_EQ(grantpt(master), 0);
    ASSERT_EQ(unlockpt(master), 0);
    const std::string port = ptsname(master);
    termios t{};
    tcgetattr(master, &t);
    cfmakeraw(&t);
    tcsetattr(master, TCSANOW, &t);
    sim::uart::TtyLine line(master);
    sim::chip::Chip chip(line, {});

    TempDir dir;
    const std::string nmea = dir.path("gps");
    auto run = Process::start({MVGPS_PROGRAM, "run", "--tty", port, "--rate", "921600",
                               "--nmea-pty", nmea, "--control", dir.path("control.sock"), "--json"},
                              dir.path("run.json"));
    ASSERT_TRUE(run);
    ASSERT_TRUE(wait_for([&] { return std::filesystem::exists(dir.path("control.sock")); }, 10s));

    const std::vector<std::string> sentences = read_lines(nmea, 15, 30s);
    ASSERT_EQ(sentences.size(), 15u);
    for (const std::string& s : sentences) {
        EXPECT_TRUE(checksum_holds(s)) << s;
    }
    EXPECT_TRUE(std::any_of(sentences.begin(), sentences.end(),
                            [](const std::string& s) { return tool::parse_gga(s).has_value(); }));

    std::string error;
    auto client = tool::ControlClient::connect(dir.path("control.sock"), error);
    ASSERT_TRUE(client) << error;
    ctl::Reply reply;
    ASSERT_TRUE(client->control(IOCTL_VC_GPS_GET_SLEEP_STATUS, {}, 4, reply, error)) << error;
    EXPECT_EQ(reply.status, 0u);
    EXPECT_EQ(reply.information, 1u);
    // It waits behind the program's own reads: some sixty frames, a few seconds.
    ASSERT_TRUE(client->control(IOCTL_VC_GPS_START_READ, {}, 4112, reply, error)) << error;
    EXPECT_EQ(reply.status, 0u);
    ctl::Frame frame;
    ASSERT_GT(reply.output.size(), GPS_READ_HEADER_SIZE);
    EXPECT_TRUE(ctl::decode_frame(std::span(reply.output).subspan(GPS_READ_HEADER_SIZE), frame))
        << "a start-read brings back the header and one frame";
    client.reset();
    const Outcome ctl =
        run_program({"ctl", "--control", dir.path("control.sock"), "--json", "get-download-flag"});
    EXPECT_EQ(ctl.status, 0) << ctl.out;
    EXPECT_EQ(nlohmann::json::parse(ctl.out, nullptr, false).value("download_flag", -1), 1)
        << ctl.out;

    run->signal(SIGTERM);
    ASSERT_EQ(run->wait(10s), 0);
    const auto summary = nlohmann::json::parse(read_file(dir.path("run.json")), nullptr, false);
    ASSERT_TRUE(summary.is_object()) << read_file(dir.path("run.json"));
    EXPECT_EQ(summary["source"], port);
    EXPECT_TRUE(summary["losses"].is_null()) << "the chip is not the program's";
    EXPECT_GE(summary["sentences"].get<int>(), 15);
    EXPECT_EQ(summary["pool_left"], 0);
    // The driver's start-up crossed the pty: NMEA off and on at least.
    EXPECT_GE(chip.stats().frames_received, 2u);
    EXPECT_EQ(run_program({"ctl", "--control", dir.path("control.sock"), "sleep"}).status, 2)
        << "no device once the run has stopped";
}

} // namespace
} // namespace mvgps::test
