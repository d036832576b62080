// Each fault script, seen from the client's end of the wire.
#include <gtest/gtest.h>

#include "tests/unit/sim_chip/world.h"

namespace mvgps::sim::chip
{
namespace
{

using V = FrameParser::Verdict;

// The good answers to an option command (pid 0x22 sid 5, payload = its number) sent now.
std::vector<testkit::Received> ask(World& w, std::uint8_t number)
{
    w.client.clear();
    w.client.send({0x22, 5, true, {number}});
    run_for(400 * kMs);
    return w.received(0x22);
}

TEST(ChipFaults, CommandFaultsHitTheNextMatchingCommands)
{
    struct Case {
        const char* name;
        Fault fault;
        std::vector<std::size_t> acks;      // per command
        std::vector<std::uint32_t> err;     // per command
        std::optional<std::uint8_t> option; // what the chip carried out last
        bool late_first;
    } cases[] = {
        {"no ack twice", Fault::no_ack(2), {0, 0, 1}, {0, 0, 0}, 3, false},
        {"rejected twice", Fault::reject(2, 7), {1, 1, 1}, {7, 7, 0}, 3, false},
        {"late once", Fault::late_ack(1, 250 * kMs), {1, 1, 1}, {0, 0, 0}, 3, true},
        {"duplicate once", Fault::duplicate_ack(1), {2, 1, 1}, {0, 0, 0}, 3, false},
        {"other pid untouched", Fault::no_ack(3, 0x05), {1, 1, 1}, {0, 0, 0}, 3, false},
        {"sid filter", Fault::reject(3, 9, 0x22, 5), {1, 1, 1}, {9, 9, 9}, std::nullopt, false},
    };
    for (const auto& c : cases) {
        World w;
        w.chip.inject(c.fault);
        for (std::uint8_t i = 0; i < 3; ++i) {
            const sched::Nanos sent = sched::current().now();
            const auto acks = ask(w, i + 1);
            ASSERT_EQ(acks.size(), c.acks[i]) << c.name << ", command " << int(i);
            if (!acks.empty()) {
                EXPECT_EQ(get_le32(acks[0].frame.payload), c.err[i]) << c.name << ", " << int(i);
                const bool late = acks[0].arrival - sent >= 250 * kMs;
                EXPECT_EQ(late, c.late_first && i == 0) << c.name << ", command " << int(i);
            }
        }
        EXPECT_EQ(w.chip.state().option, c.option) << c.name;
    }
}

TEST(ChipFaults, OutputFaultsDamageTheSelectedFrames)
{
    struct Case {
        const char* name;
        Fault fault;
        V answer; // how the answer arrives
        V status; // how the next status frame arrives
    } cases[] = {
        {"crc of an answer", Fault::corrupt_crc(1, Output::Answers), V::BadCrc, V::Good},
        {"tail of an answer", Fault::corrupt_tail(1, Output::Answers), V::BadTail, V::Good},
        {"crc of a status frame", Fault::corrupt_crc(1, Output::Status), V::Good, V::BadCrc},
        {"tail of any frame", Fault::corrupt_tail(2), V::BadTail, V::BadTail},
    };
    for (const auto& c : cases) {
        World w;
        ASSERT_TRUE(w.client.await(kPidStatus, 0, 50 * kMs)); // just after a status frame
        w.chip.inject(c.fault);
        w.client.clear();
        w.client.send({0x22, 5, true, {1}});
        run_for(40 * kMs);
        std::optional<V> answer;
        std::optional<V> status;
        for (const auto& r : w.client.received()) {
            auto& slot = r.frame.pid == kPidStatus ? status : answer;
            if (!slot) {
                slot = r.verdict;
            }
        }
        EXPECT_EQ(answer, c.answer) << c.name;
        EXPECT_EQ(status, c.status) << c.name;
    }
}

TEST(ChipFaults, GarbageAndPaddingGoBeforeFrames)
{
    World w;
    ASSERT_TRUE(w.client.await(kPidStatus, 0, 50 * kMs));
    w.chip.inject(Fault::padding(1, 16, Output::Answers));
    w.chip.inject(Fault::garbage(1, 40, Output::Answers));
    w.client.clear();
    const auto ack = w.client.command(0x22, 5, {1});
    ASSERT_TRUE(ack.has_value()) << "the frame after the junk still parses";
    const Bytes raw = w.client.raw();
    const Bytes frame = encode(ack->frame);
    ASSERT_EQ(raw.size(), 40 + 16 + frame.size());
    EXPECT_EQ(Bytes(raw.begin() + 40, raw.begin() + 56), Bytes(16, 0xFF));
    EXPECT_EQ(Bytes(raw.begin() + 56, raw.end()), frame);
}

TEST(ChipFaults, SplitBurstArrivesInTwoRunsWithAPause)
{
    World w(playing("$GPGGA,1,*00\n$GPGSA,2*00\n$GPGSV,3*00\n$GPRMC,1,A*00\n$GPGGA,2,*00\n"));
    w.chip.inject(Fault::split_burst(1, 60 * kMs, Output::Nmea));
    run_for(1200 * kMs);
    const auto nmea = w.received(kPidNmeaData);
    ASSERT_EQ(nmea.size(), 4u) << "every sentence of the epoch still arrives";
    // The epoch falls due at 1 s and takes well under a millisecond on the line.
    EXPECT_GE(nmea.back().arrival, sched::kSecond + 60 * kMs);
    EXPECT_LT(nmea.back().arrival, sched::kSecond + 62 * kMs);
}

TEST(ChipFaults, ResetRestoresBootState)
{
    World w;
    ASSERT_TRUE(w.client.command(5, 1, {0x00, 0x01, 0x00, 0x00, 0x42}));
    ASSERT_TRUE(w.client.command(0x16, 0, le32(115200)));
    w.client.set_rate(115200);
    ASSERT_TRUE(w.client.await(kPidStatus, 0, 50 * kMs));

    w.chip.inject(Fault::reset());
    w.client.set_rate(921600);
    w.client.clear();
    run_for(45 * kMs);
    EXPECT_TRUE(w.client.received().empty()) << "booting";
    EXPECT_TRUE(w.client.await(kPidStatus, 0, 50 * kMs));
    EXPECT_EQ(w.chip.rate(), 921600u);
    EXPECT_EQ(w.chip.peek(0x100, 1), Bytes{0});
    EXPECT_EQ(w.chip.stats().resets, 1u);
}

} // namespace
} // namespace mvgps::sim::chip
