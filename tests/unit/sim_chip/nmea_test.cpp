// Cutting NMEA captures into epochs, and the real captures that ship with the project.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "sim/chip/nmea.h"
#include "sim_testkit/captures.h"

namespace mvgps::sim::chip
{
namespace
{

std::vector<std::size_t> epoch_sizes(const Capture& c)
{
    std::vector<std::size_t> out;
    for (const auto& e : c.epochs()) {
        out.push_back(e.sentences.size());
    }
    return out;
}

TEST(NmeaCapture, CutsEpochsAndFindsTheirPeriod)
{
    struct Case {
        const char* text;
        std::vector<std::size_t> sizes;
        sched::Nanos period = sched::kSecond;
    } cases[] = {
        {"# comment\n$GPGGA,120000.00,*00\n$GPGSA,*00\n$GPGGA,120001.00,*00\n", {2, 1}},
        {"$GPRMC,120000,A*00\r\n$GPGSV,*00\r\n$GPRMC,120001,A*00\r\n", {2, 1}},
        {"$GPGGA,120000.0,*00\n$GPGGA,120000.2,*00\n$GPGGA,120000.4,*00\n", {1, 1, 1}, 200'000'000},
        // One time in two precisions.
        {"$GPGGA,030129.00,*00\n$GPRMC,030129.0,A*00\n$GPGLL,x*00\n", {3}},
        {"$GPRMC,235959,A*00\n$GPRMC,000000,A*00\n$GPRMC,000001,A*00\n", {1, 1, 1}},
        // Without times a repeated sentence type starts an epoch.
        {"$GPGGA,,*00\n$GPGSA,*00\n$GPRMC,,V*00\n$GPGGA,,*00\n$GPRMC,,V*00\n", {3, 2}},
        // Sentences before the first time join the first epoch.
        {"$GPGSV,3*00\n$GPGGA,101010,*00\n$GPGGA,101011,*00\n", {2, 1}},
        // A gap does not change the usual step.
        {"$GPGGA,100000,*00\n$GPGGA,100001,*00\n$GPGGA,100002,*00\n$GPGGA,100100,*00\n",
         {1, 1, 1, 1}},
        // A broken time field is no time.
        {"$GPGGA,030130$GPGLL,x*00\n$GPRMC,030131,A*00\n", {2}},
        {"# nothing\n# here\n", {}},
    };
    for (const auto& c : cases) {
        const Capture cap = Capture::parse(c.text);
        EXPECT_EQ(epoch_sizes(cap), c.sizes) << c.text;
        EXPECT_EQ(cap.period(), c.period) << c.text;
    }
    EXPECT_EQ(Capture::parse("$GPGGA,1*00\r\n$GPGSA,2*00\n").epochs().at(0).sentences,
              (std::vector<std::string>{"$GPGGA,1*00", "$GPGSA,2*00"}))
        << "sentences lose only their line endings";
}

TEST(NmeaCapture, RealCapturesLoadWhole)
{
    const std::filesystem::path dir = testkit::nmea_dir();
    SKIP_WITHOUT_CAPTURES(dir);
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        if (entry.path().extension() != ".log") {
            continue;
        }
        ++files;
        std::ifstream in(entry.path());
        std::size_t lines = 0;
        for (std::string line; std::getline(in, line);) {
            lines += !line.empty() && line[0] != '#' && line != "\r";
        }
        const auto cap = Capture::load(entry.path().string());
        ASSERT_TRUE(cap.has_value()) << entry.path();
        EXPECT_EQ(cap->sentence_count(), lines) << entry.path();
        EXPECT_GE(cap->epochs().size(), 5u) << entry.path();
        EXPECT_EQ(cap->period(), sched::kSecond) << entry.path();
    }
    EXPECT_GT(files, 0);
    EXPECT_FALSE(Capture::load((dir / "missing.log").string()).has_value());
}

} // namespace
} // namespace mvgps::sim::chip
