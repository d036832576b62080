// The receiver model as a client hears it: well-formed sentences once a second, a position
// that moves, and a fix that follows the starts and the assistance the chip is given.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>

#include "tests/unit/sim_chip/world.h"

namespace mvgps::sim::chip
{
namespace
{

// The fields of a sentence whose checksum holds (the address first); empty otherwise.
std::vector<std::string> checked_fields(const std::string& s)
{
    const auto star = s.rfind('*');
    if (s.size() < 6 || s[0] != '$' || star == std::string::npos || star + 5 != s.size() ||
        s.substr(star + 3) != "\r\n") {
        return {};
    }
    std::uint8_t sum = 0;
    for (std::size_t i = 1; i < star; ++i) {
        sum ^= static_cast<std::uint8_t>(s[i]);
    }
    if (std::strtoul(s.substr(star + 1, 2).c_str(), nullptr, 16) != sum) {
        return {};
    }
    std::vector<std::string> fields;
    std::stringstream in(s.substr(1, star - 1));
    for (std::string f; std::getline(in, f, ',');) {
        fields.push_back(f);
    }
    if (s[star - 1] == ',') {
        fields.emplace_back();
    }
    return fields;
}

struct Epoch {
    sched::Nanos arrival = 0;
    std::vector<std::vector<std::string>> sentences; // checked fields
};

// The epochs heard so far: an epoch starts at each GGA.
std::vector<Epoch> epochs(const World& w)
{
    std::vector<Epoch> out;
    for (const auto& r : w.received(kPidNmeaData)) {
        const std::string text(r.frame.payload.begin(), r.frame.payload.end());
        auto fields = checked_fields(text);
        EXPECT_FALSE(fields.empty()) << text;
        if (fields.empty()) {
            continue;
        }
        if (fields[0] == "GPGGA" || out.empty()) {
            out.push_back({r.arrival, {}});
        }
        out.back().sentences.push_back(std::move(fields));
    }
    return out;
}

int quality(const Epoch& e)
{
    return std::atoi(e.sentences.at(0).at(6).c_str());
}

ChipConfig talking()
{
    ChipConfig c;
    c.nmea_on = true;
    return c;
}

TEST(Receiver, SentencesAreWellFormedAndTheFixMovesAlongTheRoute)
{
    World w(talking());
    run_for(6 * sched::kSecond + 100 * kMs);
    const auto heard = epochs(w);
    ASSERT_EQ(heard.size(), 6u);
    const std::size_t fields_of[] = {15, 18, 0, 13, 10}; // GGA GSA GSV RMC VTG
    const char* order[] = {"GPGGA", "GPGSA", "GPGSV", "GPRMC", "GPVTG"};
    std::string last_position;
    for (std::size_t e = 0; e < heard.size(); ++e) {
        const auto& ss = heard[e].sentences;
        if (e > 0) {
            EXPECT_NEAR(double(heard[e].arrival - heard[e - 1].arrival), 1e9, 2e6) << "1 Hz";
        }
        std::size_t kind = 0;
        std::size_t in_view = 0;
        for (const auto& f : ss) {
            while (kind < 5 && f[0] != order[kind]) {
                ++kind;
            }
            ASSERT_LT(kind, 5u) << "sentence out of order: " << f[0];
            if (f[0] == "GPGSV") {
                in_view = std::stoul(f[3]);
                EXPECT_EQ(f.size(),
                          4 + 4 * std::min<std::size_t>(4, in_view - 4 * (std::stoul(f[2]) - 1)));
                continue;
            }
            EXPECT_EQ(f.size(), fields_of[kind]) << f[0];
        }
        const auto& gga = ss.front();
        EXPECT_EQ(quality(heard[e]), 1);
        EXPECT_GE(std::stoi(gga[7]), 4) << "satellites in use";
        EXPECT_EQ(gga[3], "N");
        EXPECT_EQ(gga[5], "E");
        EXPECT_EQ(in_view, 10u);
        const auto& rmc = ss[ss.size() - 2];
        EXPECT_EQ(rmc[2], "A");
        EXPECT_EQ(rmc[3] + rmc[5], gga[2] + gga[4]) << "RMC and GGA agree";
        EXPECT_NE(gga[2] + gga[4], last_position) << "the position moves";
        last_position = gga[2] + gga[4];
        EXPECT_EQ(ss.back()[9], "A") << "VTG mode";
    }
}

// Seconds from the start command's acknowledgement to the first epoch with a fix.
double time_to_fix(World& w, sched::Nanos started, sched::Nanos limit)
{
    run_for(limit);
    for (const auto& e : epochs(w)) {
        if (e.arrival > started && quality(e) == 1) {
            return double(e.arrival - started) / sched::kSecond;
        }
    }
    return -1;
}

TEST(Receiver, TimeToFirstFixFollowsTheStartAndTheAssistance)
{
    const ReceiverConfig rc;
    const double jitter = double(rc.ttff_jitter) / sched::kSecond;
    struct Case {
        const char* name;
        bool assist_before;
        std::uint8_t start_sid;
        Bytes start_payload;
        bool assist_after_10s;
        double ttff; // nominal, seconds
        bool sky_first_empty;
    } cases[] = {
        {"cold start", false, kSidColdStart, {0x00, 0x04}, false, 35, true},
        {"warm start", false, kSidWarmStart, {4}, false, 12, false},
        {"assisted, then cold start", true, kSidColdStart, {0x00, 0x04}, false, 5, true},
        {"cold start, assisted 10 s later", false, kSidColdStart, {0x00, 0x04}, true, 15, true},
    };
    for (const auto& c : cases) {
        World w(talking());
        run_for(1500 * kMs);
        if (c.assist_before) {
            ASSERT_TRUE(w.client.command(kPidAgps, 0, Bytes(28, 1))) << c.name;
        }
        const auto ack = w.client.command(kPidReceiver, c.start_sid, c.start_payload);
        ASSERT_TRUE(ack) << c.name;
        w.client.clear();
        if (c.assist_after_10s) {
            run_for(10 * sched::kSecond);
            ASSERT_TRUE(w.client.command(kPidAgps, 0, Bytes(28, 1))) << c.name;
        }
        const double t = time_to_fix(w, ack->arrival, 45 * sched::kSecond);
        std::printf("time to first fix, %s: %.1f s\n", c.name, t);
        EXPECT_GE(t, c.ttff - jitter) << c.name;
        EXPECT_LE(t, c.ttff + jitter + 1) << c.name << " (epochs come once a second)";

        const auto first = epochs(w).at(0);
        EXPECT_EQ(quality(first), 0) << c.name << ": the fix is dropped";
        EXPECT_EQ(first.sentences.at(1).at(2), "1") << c.name << ": GSA without a fix";
        EXPECT_EQ(first.sentences.at(2).at(3) == "00", c.sky_first_empty)
            << c.name << ": a cold start forgets the satellites, a warm one keeps them";
    }
}

} // namespace
} // namespace mvgps::sim::chip
