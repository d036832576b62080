// The chip's protocol as a client on the other end of the wire sees it.
#include <gtest/gtest.h>

#include "tests/unit/sim_chip/world.h"

namespace mvgps::sim::chip
{
namespace
{

TEST(Chip, AnswersEveryCommandAndKeepsOnlyWhatItAccepted)
{
    struct Case {
        const char* name;
        std::uint8_t pid, sid;
        Bytes payload;
        std::uint32_t err;
        Bytes data;
    } cases[] = {
        {"write 1 byte", 5, 1, cat({le32(0x8010A74A), {0}}), kAccepted, {}},
        {"write 2 bytes", 5, 2, cat({le32(0x1000), {1, 2}}), kAccepted, {}},
        {"write 4 bytes", 5, 3, cat({le32(0x1002), {1, 2, 3, 4}}), kAccepted, {}},
        {"write words", 5, 4, cat({le32(0x1000), Bytes(8, 7)}), kAccepted, {}},
        {"write bytes", 5, 0, cat({le32(0x1001), {1, 2, 3}}), kAccepted, {}},
        {"write 1 byte, 2 given", 5, 1, cat({le32(0x1000), {1, 2}}), kBadLength, {}},
        {"write words, unaligned", 5, 4, cat({le32(0x1002), Bytes(8, 7)}), kBadLength, {}},
        {"write without data", 5, 0, le32(0x1000), kBadLength, {}},
        {"write, short address", 5, 1, {1, 2, 3}, kBadLength, {}},
        {"write, unknown width", 5, 5, cat({le32(0x1000), {1}}), kUnknownCommand, {}},
        {"write past the top", 5, 0, cat({le32(0xFFFFFFFE), {1, 2, 3}}), kBadArgument, {}},
        {"read", 4, 0, cat({le32(0x2000), num(3, 2)}), kAccepted, {0, 0, 0}},
        {"read nothing", 4, 0, cat({le32(0x2000), num(0, 2)}), kBadArgument, {}},
        {"read too much", 4, 0, cat({le32(0x2000), num(kMaxRead + 1, 2)}), kBadArgument, {}},
        {"read past the top", 4, 0, cat({le32(0xFFFFFFFF), num(2, 2)}), kBadArgument, {}},
        {"read, short payload", 4, 0, le32(0x2000), kBadLength, {}},
        {"rf register", 0x10, 0, {0x31, 0x56, 0xA8, 0x02}, kAccepted, {}},
        {"rf register, short", 0x10, 0, {0x32, 0x56, 0xA8}, kBadLength, {}},
        {"nmea off", 0xFF, 2, {}, kAccepted, {}},
        {"nmea on, first packet", 0xFF, 4, {}, kAccepted, {}},
        {"nmea, other sid", 0xFF, 5, {}, kUnknownCommand, {}},
        {"option", 0x22, 5, {0}, kAccepted, {}},
        {"option, two bytes", 0x22, 5, {0, 1}, kBadLength, {}},
        {"cold start", 0x20, 6, {0x00, 0x04}, kAccepted, {}},
        {"warm start", 0x20, 2, {4}, kAccepted, {}},
        {"warm start, no payload", 0x20, 2, {}, kBadLength, {}},
        {"assistance type 0", 6, 0, Bytes(28, 1), kAccepted, {}},
        {"assistance type 3, no slot open", 6, 3, Bytes(24, 2), kBadArgument, {}},
        {"assistance type 1", 6, 1, Bytes(48, 3), kAccepted, {}},
        {"assistance type 3", 6, 3, Bytes(24, 2), kAccepted, {}},
        {"assistance, wrong size", 6, 2, Bytes(25, 1), kBadLength, {}},
        {"assistance, unknown type", 6, 7, Bytes(36, 1), kUnknownCommand, {}},
        {"geofence", 0x30, 3, {0x34, 0x12, 0, 0}, kAccepted, {0x34, 0x12, 4}},
        {"geofence, unknown sid", 0x30, 7, {0x34, 0x12, 0, 0}, kUnknownCommand, {}},
        {"baud rate, unsupported", 0x16, 0, le32(12345), kBadArgument, {}},
        {"unknown command", 0x07, 0, {}, kUnknownCommand, {}},
    };
    World w;
    for (const auto& c : cases) {
        const auto ack = w.client.command(c.pid, c.sid, c.payload);
        ASSERT_TRUE(ack.has_value()) << c.name;
        EXPECT_TRUE(ack->frame.crc) << c.name;
        EXPECT_EQ(ack->frame.payload, cat({le32(c.err), c.data})) << c.name;
    }
    EXPECT_EQ(w.chip.stats().answers_sent, std::size(cases));
    EXPECT_NE(w.chip.trace()[0].text().find("rx 05/01"), std::string::npos);
    const ChipState st = w.chip.state();
    EXPECT_FALSE(st.nmea_on) << "sid 4 alone does not turn output on";
    EXPECT_EQ(st.rf_registers, (std::map<std::uint8_t, std::uint32_t>{{0x31, 0x2A856}}));
    EXPECT_EQ(st.option, std::optional<std::uint8_t>(0));
    EXPECT_EQ(st.agps, (Assistance{Bytes(28, 1), {{{{1, Bytes(48, 3)}, {3, Bytes(24, 2)}}}}}));
    EXPECT_EQ(st.cold_starts, 1);
    EXPECT_EQ(st.warm_starts, 1);
    EXPECT_TRUE(st.geofences.empty());
}

TEST(Chip, MemoryReadsBackWhatWasWrittenInTheChipsByteOrder)
{
    for (ByteOrder order : {ByteOrder::Little, ByteOrder::Big}) {
        ChipConfig cfg = quiet_config();
        cfg.order = order;
        World w(cfg);
        w.chip.set_read_only(0xB9002219, 1); // takes the write, keeps its zero
        const Bytes data = {0x46, 0x0A, 0xEE, 0x01, 0x02, 0x03, 0x04, 0x05};
        ASSERT_TRUE(w.client.command(5, 0, cat({num(0xB9002212, 4, order), data})));
        EXPECT_EQ(w.chip.peek(0xB9002212, 8), cat({Bytes(data.begin(), data.end() - 1), {0}}));

        const auto ack = w.client.command(4, 0, cat({num(0xB9002213, 4, order), num(3, 2, order)}));
        ASSERT_TRUE(ack.has_value());
        EXPECT_EQ(ack->frame.payload, cat({num(kAccepted, 4, order), {0x0A, 0xEE, 0x01}}));
    }
}

TEST(Chip, StatusFramesComeAboutEvery25ms)
{
    World w;
    run_for(sched::kSecond);
    const auto status = w.received(kPidStatus);
    ASSERT_GE(status.size(), 38u);
    ASSERT_LE(status.size(), 42u);
    for (std::size_t i = 1; i < status.size(); ++i) {
        const sched::Nanos gap = status[i].arrival - status[i - 1].arrival;
        EXPECT_GE(gap, 22 * kMs);
        EXPECT_LE(gap, 28 * kMs);
        EXPECT_EQ(get_le32(status[i].frame.payload), get_le32(status[i - 1].frame.payload) + 1);
    }
}

// The sentences received, grouped into bursts: a new burst starts after a pause of > 50 ms.
struct Burst {
    sched::Nanos start = 0;
    std::vector<std::string> sentences;
};

std::vector<Burst> nmea_bursts(const World& w)
{
    std::vector<Burst> bursts;
    sched::Nanos last = -sched::kSecond;
    for (const auto& r : w.received(kPidNmeaData)) {
        if (r.arrival - last > 50 * kMs) {
            bursts.push_back({r.arrival, {}});
        }
        bursts.back().sentences.emplace_back(r.frame.payload.begin(), r.frame.payload.end());
        last = r.arrival;
    }
    return bursts;
}

TEST(Chip, PlaysEachEpochAsOneBurstAtTheCapturedRateAndLoops)
{
    World w(playing("$GPGGA,120000.0,A*00\n$GPGSA,1*00\n$GPRMC,120000.0,A*00\n"
                    "$GPGGA,120000.5,B*00\r\n$GPRMC,120000.5,B*00\r\n"
                    "$GPGGA,120001.0,C*00\n$GPGSV,1*00\n$GPGSV,2*00\n$GPRMC,120001.0,C*00\n"));
    run_for(2 * sched::kSecond + 250 * kMs);
    const std::vector<std::string> first = {"$GPGGA,120000.0,A*00\r\n", "$GPGSA,1*00\r\n",
                                            "$GPRMC,120000.0,A*00\r\n"};
    const auto bursts = nmea_bursts(w);
    ASSERT_EQ(bursts.size(), 4u);
    EXPECT_EQ(bursts[0].sentences, first);
    EXPECT_EQ(bursts[1].sentences.size(), 2u);
    EXPECT_EQ(bursts[2].sentences.size(), 4u);
    EXPECT_EQ(bursts[3].sentences, first) << "playback loops";
    for (std::size_t i = 1; i < bursts.size(); ++i) {
        EXPECT_NEAR(double(bursts[i].start - bursts[i - 1].start), 500.0 * kMs, 2.0 * kMs);
    }
    // Each epoch leaves as one run of bytes: no status frame lands inside one.
    const auto all = w.client.received();
    for (std::size_t i = 1; i < all.size(); ++i) {
        if (all[i - 1].frame.pid == kPidNmeaData && all[i].frame.pid == kPidStatus) {
            EXPECT_EQ(all[i - 1].frame.payload[3], 'R') << "status frame inside an epoch";
        }
    }
}

// Switching output off and on is the receiver tests' business; a cold start replays the
// capture from its start.
TEST(Chip, ColdStartRestartsTheCapture)
{
    World w(playing("$GPRMC,000001,A*00\n$GPRMC,000002,A*00\n$GPRMC,000003,A*00\n"));
    run_for(2500 * kMs);
    EXPECT_EQ(nmea_bursts(w).size(), 2u);
    ASSERT_TRUE(w.client.command(0x20, 6, {0x00, 0x04}));
    w.client.clear();
    run_for(2 * sched::kSecond + 100 * kMs);
    const auto bursts = nmea_bursts(w);
    ASSERT_EQ(bursts.size(), 2u);
    EXPECT_EQ(bursts[0].sentences, std::vector<std::string>{"$GPRMC,000001,A*00\r\n"});
}

TEST(Chip, BaudCommandIsAnsweredAtTheOldRateThenTheChipSwitches)
{
    World w;
    const auto ack = w.client.command(0x16, 0, le32(115200));
    ASSERT_TRUE(ack.has_value()) << "the answer travels at the old rate";
    EXPECT_EQ(get_le32(ack->frame.payload), kAccepted);
    run_for(5 * kMs);
    EXPECT_EQ(w.chip.rate(), 115200u);

    w.client.clear();
    run_for(200 * kMs);
    EXPECT_FALSE(w.client.raw().empty()) << "the chip goes on talking";
    EXPECT_TRUE(w.received(kPidStatus).empty()) << "a client at the old rate hears garbage";

    w.client.set_rate(115200);
    run_for(5 * kMs); // what was on its way at the old rate
    w.client.clear();
    run_for(200 * kMs);
    const auto all = w.client.received();
    EXPECT_GE(all.size(), 7u) << "the line runs at the new rate";
    for (const auto& r : all) {
        EXPECT_EQ(r.verdict, FrameParser::Verdict::Good);
        EXPECT_EQ(r.frame.pid, kPidStatus);
    }
}

TEST(Chip, StartUpAddressesHoldTheirPowerOnValues)
{
    struct Case {
        std::uint32_t address;
        std::uint8_t power_on;
        std::uint8_t after_write_of_70;
    } cases[] = {
        {kGuardRegister, 10, 70}, {kControlByte, 0x40, 70}, {kRevision, 0x21, 0x21}, // read only
        {kDownloadWord, 1, 70},   {kColdStartWord, 1, 70},
    };
    World w;
    const auto read = [&](std::uint32_t a) {
        const auto ack = w.client.command(4, 0, cat({le32(a), num(1, 2)}));
        return ack && ack->frame.payload.size() == 5 ? ack->frame.payload[4] : -1;
    };
    for (const auto& c : cases) {
        EXPECT_EQ(read(c.address), c.power_on) << std::hex << c.address;
        ASSERT_TRUE(w.client.command(5, 1, cat({le32(c.address), {70}})));
        EXPECT_EQ(read(c.address), c.after_write_of_70) << std::hex << c.address;
    }
    w.chip.inject(Fault::reset());
    run_for(100 * kMs);
    for (const auto& c : cases) {
        EXPECT_EQ(read(c.address), c.power_on) << "after a reset, " << std::hex << c.address;
    }
}

// A 36-byte add command: id, alignment, latitude, longitude, radius, last transition,
// alignment, monitored transitions, three more words.
Bytes add_fence(std::uint16_t id, std::uint8_t last = 1, std::uint32_t monitored = 3)
{
    return cat({num(id, 2),
                {0, 0},
                le32(481173000),
                le32(115167000),
                le32(150),
                {last, 0, 0, 0},
                le32(monitored),
                le32(1000),
                le32(30000),
                le32(0)});
}

Bytes truncated(Bytes b)
{
    b.pop_back();
    return b;
}

Bytes fence_cmd(std::uint16_t id, std::uint8_t arg = 0)
{
    return cat({num(id, 2), {arg, 0}});
}

TEST(Chip, GeofenceAnswersFollowTheTable)
{
    struct Step {
        const char* name;
        std::uint8_t sid;
        Bytes payload;
        std::uint16_t id;
        std::uint8_t status;
    } steps[] = {
        {"add", kSidGeofenceAdd, add_fence(1), 1, kGeofenceDone},
        {"add, same id", kSidGeofenceAdd, add_fence(1), 1, kGeofenceIdExists},
        {"add, last transition not one", kSidGeofenceAdd, add_fence(2, 3), 2,
         kGeofenceBadTransition},
        {"add, monitors nothing", kSidGeofenceAdd, add_fence(2, 1, 0), 2, kGeofenceBadTransition},
        {"add, monitors an unknown transition", kSidGeofenceAdd, add_fence(2, 1, 8), 2,
         kGeofenceBadTransition},
        {"add, short", kSidGeofenceAdd, truncated(add_fence(2)), 2, kGeofenceGeneric},
        {"remove, unknown", kSidGeofenceRemove, fence_cmd(7), 7, kGeofenceUnknownId},
        {"query", kSidGeofenceQuery, fence_cmd(1), 1, kGeofenceDone},
        {"resume, running", kSidGeofenceResume, fence_cmd(1, 1), 1, kGeofenceGeneric},
        {"pause", kSidGeofencePause, fence_cmd(1), 1, kGeofenceDone},
        {"pause, paused", kSidGeofencePause, fence_cmd(1), 1, kGeofenceGeneric},
        {"resume, no transition", kSidGeofenceResume, fence_cmd(1, 0), 1, kGeofenceBadTransition},
        {"resume, exits only", kSidGeofenceResume, fence_cmd(1, 2), 1, kGeofenceDone},
        {"report, not monitored", kSidGeofenceReport, fence_cmd(1, 1), 1, kGeofenceBadTransition},
        {"report, exited", kSidGeofenceReport, fence_cmd(1, 2), 1, kGeofenceDone},
        {"report, short", kSidGeofenceReport, num(1, 2), 1, kGeofenceGeneric},
    };
    World w;
    const auto answer = [&](std::uint8_t sid, const Bytes& payload) {
        const auto ack = w.client.command(kPidGeofence, sid, payload);
        return ack ? ack->frame.payload : Bytes{};
    };
    const auto status = [&](std::uint8_t sid, const Bytes& payload) {
        const Bytes a = answer(sid, payload);
        return a.size() == 7 ? a[6] : -1;
    };
    for (const auto& s : steps) {
        EXPECT_EQ(answer(s.sid, s.payload), cat({le32(kAccepted), num(s.id, 2), {s.status}}))
            << s.name;
    }
    const auto fences = w.chip.state().geofences;
    const Geofence& one = fences.at(1);
    EXPECT_EQ(one.last_transition, 2);
    EXPECT_EQ(one.monitored, 2u);
    EXPECT_EQ(one.radius, 150u);

    for (std::uint16_t id = 2; id <= 8; ++id) {
        EXPECT_EQ(status(kSidGeofenceAdd, add_fence(id)), kGeofenceDone);
    }
    EXPECT_EQ(status(kSidGeofenceAdd, add_fence(9)), kGeofenceTooMany);
    EXPECT_EQ(status(kSidGeofenceRemove, fence_cmd(8)), kGeofenceDone);
    EXPECT_EQ(status(kSidGeofenceAdd, add_fence(9)), kGeofenceDone);
    EXPECT_EQ(status(kSidGeofenceClear, fence_cmd(0)), kGeofenceDone);
    EXPECT_EQ(status(kSidGeofenceQuery, fence_cmd(1)), kGeofenceUnknownId);
    EXPECT_TRUE(w.chip.state().geofences.empty());

    w.chip.set_geofence_status(9);
    const auto forced = w.client.command(kPidGeofence, kSidGeofenceAdd, add_fence(5));
    ASSERT_TRUE(forced.has_value());
    EXPECT_EQ(forced->frame.payload, cat({le32(kAccepted), num(5, 2), {9}}));
    EXPECT_TRUE(w.chip.state().geofences.empty()) << "a forced answer leaves the table alone";
}

TEST(Chip, SleepsUntilTheNextFrame)
{
    World w;
    ASSERT_TRUE(w.client.command(0x20, 8));
    run_for(10 * kMs);
    EXPECT_TRUE(w.chip.state().asleep);
    w.client.clear();
    run_for(500 * kMs);
    EXPECT_TRUE(w.client.received().empty());

    ASSERT_TRUE(w.client.command(0xFF, 3)) << "the frame that wakes the chip is served";
    EXPECT_FALSE(w.chip.state().asleep);
    EXPECT_TRUE(w.client.await(kPidStatus, 0, 30 * kMs));
}

} // namespace
} // namespace mvgps::sim::chip
