// The chip's protocol as a client on the other end of the wire sees it.
#include <gtest/gtest.h>

#include "sim_chip/world.h"

namespace mvgps::sim::chip
{
namespace
{

using testkit::cat;
using testkit::get_le32;
using testkit::le16;
using testkit::le32;
using testkit::Received;
using testkit::run_for;
using Bytes = std::vector<std::uint8_t>;
constexpr sched::Nanos kMs = sched::kMillisecond;

TEST(Chip, AcknowledgesEveryCommandWithItsIdentifiers)
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
        {"write 4 bytes, 3 given", 5, 3, cat({le32(0x1000), {1, 2, 3}}), kBadLength, {}},
        {"write words, unaligned", 5, 4, cat({le32(0x1002), Bytes(8, 7)}), kBadLength, {}},
        {"write without data", 5, 0, le32(0x1000), kBadLength, {}},
        {"write, short address", 5, 1, {1, 2, 3}, kBadLength, {}},
        {"write, unknown width", 5, 5, cat({le32(0x1000), {1}}), kUnknownCommand, {}},
        {"write past the top", 5, 0, cat({le32(0xFFFFFFFE), {1, 2, 3}}), kBadArgument, {}},
        {"read", 4, 0, cat({le32(0x2000), le16(3)}), kAccepted, {0, 0, 0}},
        {"read nothing", 4, 0, cat({le32(0x2000), le16(0)}), kBadArgument, {}},
        {"read too much", 4, 0, cat({le32(0x2000), le16(kMaxRead + 1)}), kBadArgument, {}},
        {"read past the top", 4, 0, cat({le32(0xFFFFFFFF), le16(2)}), kBadArgument, {}},
        {"read, short payload", 4, 0, le32(0x2000), kBadLength, {}},
        {"read, other sid", 4, 1, cat({le32(0x2000), le16(1)}), kUnknownCommand, {}},
        {"rf register", 0x10, 0, {0x31, 0x56, 0xA8, 0x02}, kAccepted, {}},
        {"rf register, short", 0x10, 0, {0x31, 0x56, 0xA8}, kBadLength, {}},
        {"nmea off", 0xFF, 2, {}, kAccepted, {}},
        {"nmea on", 0xFF, 3, {}, kAccepted, {}},
        {"nmea on, first packet", 0xFF, 4, {}, kAccepted, {}},
        {"nmea, other sid", 0xFF, 5, {}, kUnknownCommand, {}},
        {"option", 0x22, 5, {0}, kAccepted, {}},
        {"option, two bytes", 0x22, 5, {0, 1}, kBadLength, {}},
        {"cold start", 0x20, 6, {0x00, 0x04}, kAccepted, {}},
        {"warm start", 0x20, 2, {4}, kAccepted, {}},
        {"warm start, no payload", 0x20, 2, {}, kBadLength, {}},
        {"assistance type 0", 6, 0, Bytes(28, 1), kAccepted, {}},
        {"assistance type 1", 6, 1, Bytes(48, 1), kAccepted, {}},
        {"assistance type 4", 6, 6, Bytes(36, 1), kAccepted, {}},
        {"assistance, wrong size", 6, 2, Bytes(25, 1), kBadLength, {}},
        {"assistance, unknown type", 6, 7, Bytes(36, 1), kUnknownCommand, {}},
        {"geofence", 0x30, 3, {0x34, 0x12, 0, 0}, kAccepted, {0x34, 0x12, 0}},
        {"geofence, sid 7", 0x30, 7, {0x34, 0x12, 0, 0}, kUnknownCommand, {}},
        {"baud rate, unsupported", 0x16, 0, le32(12345), kBadArgument, {}},
        {"baud rate, other sid", 0x16, 1, le32(115200), kUnknownCommand, {}},
        {"unknown command", 0x07, 0, {}, kUnknownCommand, {}},
    };
    World w(quiet_config());
    for (const auto& c : cases) {
        const auto ack = w.client.command(c.pid, c.sid, c.payload);
        ASSERT_TRUE(ack.has_value()) << c.name;
        EXPECT_TRUE(ack->frame.crc) << c.name;
        ASSERT_GE(ack->frame.payload.size(), 4u) << c.name;
        EXPECT_EQ(get_le32(ack->frame.payload), c.err) << c.name;
        EXPECT_EQ(Bytes(ack->frame.payload.begin() + 4, ack->frame.payload.end()), c.data)
            << c.name;
    }
    const ChipStats s = w.chip.stats();
    EXPECT_EQ(s.frames_received, std::size(cases));
    EXPECT_EQ(s.answers_sent, std::size(cases));
}

TEST(Chip, StartUpSequenceLeavesItsMarks)
{
    World w(quiet_config());
    struct Step {
        std::uint8_t pid, sid;
        Bytes payload;
    } steps[] = {
        {0xFF, 2, {}},
        {5, 1, cat({le32(0x8010A74A), {0}})},
        {0x10, 0, {0x31, 0x56, 0xA8, 0x02}},
        {0xFF, 3, {}},
        {0x22, 5, {0}},
        {6, 0, Bytes(28, 9)},
        {6, 3, Bytes(24, 8)},
        {0x20, 6, {0x00, 0x04}},
        {0x20, 2, {4}},
    };
    for (const auto& s : steps) {
        const auto ack = w.client.command(s.pid, s.sid, s.payload);
        ASSERT_TRUE(ack && get_le32(ack->frame.payload) == kAccepted);
    }
    const ChipState st = w.chip.state();
    EXPECT_TRUE(st.nmea_on);
    EXPECT_EQ(st.rf_registers, (std::map<std::uint8_t, std::uint32_t>{{0x31, 0x2A856}}));
    EXPECT_EQ(st.option, std::optional<std::uint8_t>(0));
    EXPECT_EQ(st.agps, (std::vector<AgpsBlock>{{0, Bytes(28, 9)}, {3, Bytes(24, 8)}}));
    EXPECT_EQ(st.cold_starts, 1);
    EXPECT_EQ(st.warm_starts, 1);
}

TEST(Chip, MemoryReadsBackWhatWasWrittenInTheChipsByteOrder)
{
    for (ByteOrder order : {ByteOrder::Little, ByteOrder::Big}) {
        ChipConfig cfg = quiet_config();
        cfg.order = order;
        World w(cfg);
        const auto put32 = [&](std::uint32_t v) {
            Bytes b = le32(v);
            if (order == ByteOrder::Big) {
                std::reverse(b.begin(), b.end());
            }
            return b;
        };
        const auto put16 = [&](std::uint16_t v) {
            Bytes b = le16(v);
            if (order == ByteOrder::Big) {
                std::reverse(b.begin(), b.end());
            }
            return b;
        };
        const Bytes data = {0x46, 0x0A, 0xEE, 0x01, 0x02, 0x03, 0x04, 0x05};
        ASSERT_TRUE(w.client.command(5, 0, cat({put32(0xB9002212), data})));
        EXPECT_EQ(w.chip.peek(0xB9002212, data.size()), data);

        const auto ack = w.client.command(4, 0, cat({put32(0xB9002213), put16(3)}));
        ASSERT_TRUE(ack.has_value());
        EXPECT_EQ(ack->frame.payload, cat({put32(kAccepted), {0x0A, 0xEE, 0x01}}));
        // A read answer is header, err_status, the data, CRC and tail.
        EXPECT_EQ(encode(ack->frame).size(), 7u + 4u + 3u + 2u + 1u);

        const auto refused = w.client.command(5, 1, cat({put32(0x100), {1, 2}}));
        ASSERT_TRUE(refused.has_value());
        EXPECT_EQ(Bytes(refused->frame.payload.begin(), refused->frame.payload.begin() + 4),
                  put32(kBadLength));
    }
}

TEST(Chip, ReadOnlyMemoryAcceptsWritesThatDoNotStick)
{
    World w(quiet_config());
    w.chip.set_read_only(0xB9002214, 1);
    const auto ack = w.client.command(5, 1, cat({le32(0xB9002214), {70}}));
    ASSERT_TRUE(ack && get_le32(ack->frame.payload) == kAccepted);
    const auto read = w.client.command(4, 0, cat({le32(0xB9002214), le16(1)}));
    ASSERT_TRUE(read.has_value());
    EXPECT_EQ(read->frame.payload, cat({le32(kAccepted), {0}}));
}

TEST(Chip, GeofenceAnswerCarriesIdentifierAndStatus)
{
    World w(quiet_config());
    for (std::uint8_t status : {0, 2, 4, 9}) {
        w.chip.set_geofence_status(status);
        const auto ack = w.client.command(0x30, 1, {0xCD, 0xAB, 1, 2, 3, 4});
        ASSERT_TRUE(ack.has_value());
        const Bytes wire = encode(ack->frame);
        EXPECT_EQ(wire[11] | wire[12] << 8, 0xABCD);
        EXPECT_EQ(wire[13], status);
    }
    EXPECT_EQ(w.chip.state().geofence.size(), 4u);
}

TEST(Chip, StatusFramesComeAboutEvery25ms)
{
    World w(quiet_config());
    run_for(sched::kSecond);
    std::vector<Received> status;
    for (const auto& r : w.client.received()) {
        if (r.frame.pid == kPidStatus) {
            status.push_back(r);
        }
    }
    ASSERT_GE(status.size(), 38u);
    ASSERT_LE(status.size(), 42u);
    for (std::size_t i = 1; i < status.size(); ++i) {
        const sched::Nanos gap = status[i].arrival - status[i - 1].arrival;
        EXPECT_GE(gap, 22 * kMs);
        EXPECT_LE(gap, 28 * kMs);
        EXPECT_EQ(get_le32(status[i].frame.payload), get_le32(status[i - 1].frame.payload) + 1);
    }
}

// NMEA frames grouped into bursts: a new burst starts after a pause of more than 50 ms.
std::vector<std::vector<Received>> nmea_bursts(const std::vector<Received>& all)
{
    std::vector<std::vector<Received>> bursts;
    for (const auto& r : all) {
        if (r.frame.pid != kPidNmeaData) {
            continue;
        }
        if (bursts.empty() || r.arrival - bursts.back().back().arrival > 50 * kMs) {
            bursts.emplace_back();
        }
        bursts.back().push_back(r);
    }
    return bursts;
}

std::string text(const Received& r)
{
    return {r.frame.payload.begin(), r.frame.payload.end()};
}

TEST(Chip, PlaysEachEpochAsOneBurstAtTheCapturedRateAndLoops)
{
    ChipConfig cfg;
    cfg.capture = capture("$GPGGA,120000.0,A*00\n$GPGSA,1*00\n$GPRMC,120000.0,A*00\n"
                          "$GPGGA,120000.5,B*00\r\n$GPRMC,120000.5,B*00\r\n"
                          "$GPGGA,120001.0,C*00\n$GPGSV,1*00\n$GPGSV,2*00\n$GPRMC,120001.0,C*00\n");
    ASSERT_EQ(cfg.capture->period(), 500 * kMs);
    World w(cfg);
    run_for(2 * sched::kSecond + 250 * kMs);
    const auto all = w.client.received();
    const auto bursts = nmea_bursts(all);
    ASSERT_EQ(bursts.size(), 4u);
    const std::vector<std::string> first = {"$GPGGA,120000.0,A*00\r\n", "$GPGSA,1*00\r\n",
                                            "$GPRMC,120000.0,A*00\r\n"};
    const std::size_t sizes[] = {3, 2, 4, 3};
    for (std::size_t i = 0; i < bursts.size(); ++i) {
        EXPECT_EQ(bursts[i].size(), sizes[i]) << "burst " << i;
        if (i > 0) {
            const sched::Nanos step = bursts[i][0].arrival - bursts[i - 1][0].arrival;
            EXPECT_NEAR(static_cast<double>(step), 500.0 * kMs, 2.0 * kMs) << "burst " << i;
        }
    }
    for (std::size_t k = 0; k < 3; ++k) {
        EXPECT_EQ(text(bursts[0][k]), first[k]);
        EXPECT_EQ(text(bursts[3][k]), first[k]) << "playback loops";
    }
    // One run of bytes: no status frame lands inside an epoch.
    for (std::size_t i = 0; i + 1 < all.size(); ++i) {
        if (all[i].frame.pid == kPidNmeaData && all[i + 1].frame.pid == kPidStatus) {
            const std::string s = text(all[i]);
            EXPECT_TRUE(s.starts_with("$GPRMC")) << "status frame after " << s;
        }
    }
}

TEST(Chip, NmeaOutputFollowsTheOnAndOffCommands)
{
    ChipConfig cfg;
    cfg.capture = capture("$GPGGA,120000,*00\n$GPGGA,120001,*00\n");
    World w(cfg);
    run_for(1500 * kMs);
    EXPECT_EQ(nmea_bursts(w.client.received()).size(), 1u);

    ASSERT_TRUE(w.client.command(0xFF, 2));
    w.client.clear();
    run_for(3 * sched::kSecond);
    EXPECT_TRUE(nmea_bursts(w.client.received()).empty());
    EXPECT_FALSE(w.client.received().empty()) << "status frames go on";

    ASSERT_TRUE(w.client.command(0xFF, 3));
    w.client.clear();
    run_for(2 * sched::kSecond + 100 * kMs);
    EXPECT_EQ(nmea_bursts(w.client.received()).size(), 2u);
}

TEST(Chip, ColdStartRestartsPlayback)
{
    ChipConfig cfg;
    cfg.capture = capture("$GPRMC,000001,A*00\n$GPRMC,000002,A*00\n$GPRMC,000003,A*00\n");
    World w(cfg);
    run_for(2500 * kMs);
    ASSERT_TRUE(w.client.command(0x20, 6, {0x00, 0x04}));
    w.client.clear();
    run_for(1100 * kMs);
    const auto bursts = nmea_bursts(w.client.received());
    ASSERT_EQ(bursts.size(), 1u);
    EXPECT_EQ(text(bursts[0][0]), "$GPRMC,000001,A*00\r\n");
}

TEST(Chip, RealCaptureStreamsSentenceForSentence)
{
    const auto cap = Capture::load(std::string(MVGPS_NMEA_DIR) + "/bu353s4.log");
    if (!cap) {
        GTEST_SKIP() << "capture not found";
    }
    ChipConfig cfg;
    cfg.capture = std::make_shared<const Capture>(*cap);
    World w(cfg);
    run_for(5 * sched::kSecond + 500 * kMs);
    const auto bursts = nmea_bursts(w.client.received());
    ASSERT_EQ(bursts.size(), 5u);
    for (std::size_t i = 0; i < bursts.size(); ++i) {
        const auto& sentences = cap->epochs()[i].sentences;
        ASSERT_EQ(bursts[i].size(), sentences.size());
        for (std::size_t k = 0; k < sentences.size(); ++k) {
            EXPECT_EQ(text(bursts[i][k]), sentences[k] + "\r\n");
        }
    }
}

TEST(Chip, BaudCommandIsAnsweredAtTheOldRateThenTheChipSwitches)
{
    World w(quiet_config());
    const auto ack = w.client.command(0x16, 0, le32(115200));
    ASSERT_TRUE(ack.has_value()) << "the answer travels at the old rate";
    EXPECT_EQ(get_le32(ack->frame.payload), kAccepted);
    run_for(5 * kMs);
    EXPECT_EQ(w.chip.rate(), 115200u);

    w.client.clear();
    run_for(200 * kMs);
    EXPECT_TRUE(w.client.received().empty()) << "a receiver at the old rate sees garbage";
    EXPECT_FALSE(w.client.raw().empty());

    w.client.set_rate(115200);
    EXPECT_TRUE(w.client.await(kPidStatus, 0, 100 * kMs));
    const auto back = w.client.command(0x16, 0, le32(921600));
    ASSERT_TRUE(back.has_value());
    run_for(5 * kMs);
    EXPECT_EQ(w.chip.rate(), 921600u);
}

TEST(Chip, SleepsUntilTheNextFrame)
{
    World w(quiet_config());
    ASSERT_TRUE(w.client.command(0x20, 8));
    run_for(10 * kMs);
    EXPECT_TRUE(w.chip.state().asleep);
    w.client.clear();
    run_for(500 * kMs);
    EXPECT_TRUE(w.client.received().empty());

    const auto ack = w.client.command(0xFF, 3);
    ASSERT_TRUE(ack.has_value()) << "the frame that wakes the chip is served";
    EXPECT_FALSE(w.chip.state().asleep);
    EXPECT_TRUE(w.client.await(kPidStatus, 0, 30 * kMs));
}

TEST(Chip, PowerOffIsDeafAndMuteAndPowerOnBootsAfresh)
{
    World w(quiet_config());
    ASSERT_TRUE(w.client.command(5, 1, cat({le32(0x100), {9}})));
    w.chip.set_power(false);
    w.client.clear();
    EXPECT_FALSE(w.client.command(0xFF, 2));
    run_for(200 * kMs);
    EXPECT_TRUE(w.client.received().empty());

    w.chip.set_power(true);
    EXPECT_TRUE(w.client.await(kPidStatus, 0, 100 * kMs));
    EXPECT_EQ(w.chip.peek(0x100, 1), Bytes{0});
}

TEST(Chip, CountsAndTracesBothDirections)
{
    World w(quiet_config());
    ASSERT_TRUE(w.client.command(0xFF, 2));
    ASSERT_TRUE(w.client.command(0x22, 5, {1}));
    run_for(100 * kMs);
    const auto trace = w.chip.trace();
    const auto stats = w.chip.stats();
    EXPECT_EQ(stats.frames_received, 2u);
    EXPECT_EQ(stats.frames_sent, stats.answers_sent + stats.status_sent);
    EXPECT_EQ(w.client.received().size(), stats.frames_sent);
    std::size_t rx = 0;
    std::size_t tx = 0;
    for (std::size_t i = 0; i < trace.size(); ++i) {
        (trace[i].sent ? tx : rx) += 1;
        if (i > 0) {
            EXPECT_GE(trace[i].time, trace[i - 1].time);
        }
    }
    EXPECT_EQ(rx, 2u);
    EXPECT_EQ(tx, stats.frames_sent);
    EXPECT_NE(trace[0].text().find("rx ff/02"), std::string::npos) << trace[0].text();
}

} // namespace
} // namespace mvgps::sim::chip
