// gpsd, the daemon most Linux GPS software reads, fed by the driver through `mvgps run`'s
// pty: from a recorded capture its position reports must equal, one for one, those it makes
// from the capture read directly; from the receiver model it must report a moving 3D fix.
#include <gtest/gtest.h>

#include <signal.h>

#include <filesystem>

#include "gpsd.h"
#include "sim/testkit/captures.h"

namespace mvgps::test
{
namespace
{

using namespace std::chrono_literals;

#define SKIP_WITHOUT_GPSD()                                                                        \
    if (const std::string why = gpsd_missing(); !why.empty()) {                                    \
        GTEST_SKIP() << why;                                                                       \
    }                                                                                              \
    if (const std::string why = too_busy_for_real_time(); !why.empty()) {                          \
        GTEST_SKIP() << why;                                                                       \
    }

// In real time a loaded machine can hold the simulated chip up past the driver's read
// timeout; `mvgps run` then says the capture was not delivered whole, and the run is tried
// again.
constexpr int kAttempts = 3;

std::vector<nlohmann::json> direct(const std::filesystem::path& capture)
{
    TempDir dir;
    FeedPty pty;
    auto gpsd = Gpsd::start(pty.path(), dir, "direct");
    if (!gpsd || !gpsd->wait_active() || !pty.wait_settled()) {
        ADD_FAILURE() << "gpsd did not take the pty " << pty.path();
        return {};
    }
    pty.write(read_file(capture));
    gpsd->finish();
    return gpsd->tpv();
}

// The TPVs, or nothing when the capture did not come through whole.
std::optional<std::vector<nlohmann::json>> through_driver(const std::filesystem::path& capture)
{
    TempDir dir;
    const std::string link = dir.path("gps");
    auto run = Process::start({MVGPS_PROGRAM, "run", "--capture", capture.string(), "--until-end",
                               "--wait-reader", "--nmea-pty", link, "--control",
                               dir.path("control.sock"), "--json"},
                              dir.path("run.json"));
    EXPECT_TRUE(wait_for([&] { return std::filesystem::exists(link); }, 10s));
    auto gpsd = Gpsd::start(link, dir, "driver");
    if (!gpsd || !gpsd->wait_active()) {
        ADD_FAILURE() << "gpsd did not take the pty " << link;
        return std::nullopt;
    }
    const auto status = run->wait(90s);
    gpsd->finish();
    EXPECT_TRUE(status.has_value()) << "mvgps run --until-end did not end";
    if (status != 0) {
        return std::nullopt;
    }
    return gpsd->tpv();
}

class GpsdCapture : public testing::TestWithParam<const char*>
{
};

TEST_P(GpsdCapture, ReportsEqualThoseFromTheCaptureReadDirectly)
{
    SKIP_WITHOUT_GPSD();
    const auto capture = sim::testkit::nmea_dir() / GetParam();
    SKIP_WITHOUT_CAPTURES(capture);
    const auto expected = direct(capture);
    ASSERT_FALSE(expected.empty()) << "gpsd reported nothing from " << capture;
    std::optional<std::vector<nlohmann::json>> got;
    for (int attempt = 0; attempt < kAttempts && !got; ++attempt) {
        got = through_driver(capture);
    }
    ASSERT_TRUE(got) << "the capture never came through whole in " << kAttempts << " runs";
    ASSERT_EQ(got->size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ((*got)[i], expected[i]) << "TPV " << i;
    }
}

// Short ones first: each plays in real time, one epoch a second.
INSTANTIATE_TEST_SUITE_P(Captures, GpsdCapture, testing::Values("triton400.log", "garmin-10x.log"),
                         [](const auto& info) {
                             std::string name = info.param;
                             return name.substr(0, name.find_first_of(".-"));
                         });

TEST(GpsdReceiverModel, ReportsA3DFixMovingAlongTheRoute)
{
    SKIP_WITHOUT_GPSD();
    TempDir dir;
    const std::string link = dir.path("gps");
    auto run = Process::start({MVGPS_PROGRAM, "run", "--wait-reader", "--nmea-pty", link,
                               "--control", dir.path("control.sock"), "--json"},
                              dir.path("run.json"));
    ASSERT_TRUE(wait_for([&] { return std::filesystem::exists(link); }, 10s));
    auto gpsd = Gpsd::start(link, dir, "model");
    ASSERT_TRUE(gpsd && gpsd->wait_active());
    ASSERT_TRUE(wait_for([&] { return gpsd->tpv().size() >= 5; }, 20s)) << gpsd->output();
    run->signal(SIGTERM);
    EXPECT_EQ(run->wait(10s), 0) << "a clean stop on SIGTERM";
    gpsd->finish();

    const auto tpv = gpsd->tpv();
    ASSERT_GE(tpv.size(), 5u);
    for (const auto& t : tpv) {
        EXPECT_EQ(t.value("mode", 0), 3) << t;
        // The model's route is a loop of a few kilometres.
        EXPECT_NEAR(t.value("lat", 0.0), 48.125, 0.02) << t;
        EXPECT_NEAR(t.value("lon", 0.0), 11.52, 0.03) << t;
    }
    const auto& first = tpv.front();
    const auto& last = tpv.back();
    EXPECT_NE(first.value("time", ""), last.value("time", ""));
    EXPECT_GT(std::abs(last.value("lat", 0.0) - first.value("lat", 0.0)) +
                  std::abs(last.value("lon", 0.0) - first.value("lon", 0.0)),
              1e-4)
        << "the position moves (12.5 m/s)";
    const auto summary = nlohmann::json::parse(read_file(dir.path("run.json")), nullptr, false);
    ASSERT_TRUE(summary.is_object()) << read_file(dir.path("run.json"));
    EXPECT_EQ(summary["pool_left"], 0);
}

} // namespace
} // namespace mvgps::test
