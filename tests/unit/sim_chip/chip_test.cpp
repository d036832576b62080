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

// A cold start replays the capture from its start.
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

} // namespace
} // namespace mvgps::sim::chip
