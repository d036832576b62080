// The wire: character timing at the sender's rate, garbage on a mismatch, impairments.
#include <gtest/gtest.h>

#include "sched/sched.h"
#include "sim/uart/wire.h"
#include "sim_testkit/client.h"

namespace mvgps::sim::uart
{
namespace
{

using Bytes = std::vector<std::uint8_t>;
using testkit::run_for;
constexpr sched::Nanos kMs = sched::kMillisecond;

struct Recorder final : LineReceiver {
    struct Run {
        Bytes bytes;
        sched::Nanos arrival;
        sched::Nanos delivered;
    };
    std::vector<Run> runs;
    void on_bytes(std::span<const std::uint8_t> b, sched::Nanos arrival) override
    {
        runs.push_back({Bytes(b.begin(), b.end()), arrival, sched::current().now()});
    }
    Bytes all() const
    {
        Bytes out;
        for (const auto& r : runs) {
            out.insert(out.end(), r.bytes.begin(), r.bytes.end());
        }
        return out;
    }
};

// A wire with a recorder on end b, seeded as asked.
struct Bench {
    explicit Bench(std::uint64_t seed, sched::Nanos quantum = kMs)
        : install(sched::make_simulated(seed)), wire(quantum)
    {
        sched::StateLock lock(sched::current());
        wire.b().attach(&rx);
    }
    ~Bench()
    {
        sched::StateLock lock(sched::current());
        wire.b().attach(nullptr);
    }
    void configure(const LineSettings& a, const LineSettings& b)
    {
        sched::StateLock lock(sched::current());
        wire.a().configure(a);
        wire.b().configure(b);
    }
    sched::Nanos send(const Bytes& bytes, sched::Nanos idle = 0)
    {
        sched::StateLock lock(sched::current());
        return wire.a().send_after(idle, bytes);
    }

    sched::Install install;
    Wire wire;
    Recorder rx;
};

Bytes counting(std::size_t n)
{
    Bytes b(n);
    for (std::size_t i = 0; i < n; ++i) {
        b[i] = static_cast<std::uint8_t>(i * 7 + 1);
    }
    return b;
}

Bytes prefix(std::size_t n, std::size_t k)
{
    Bytes b = counting(n);
    b.resize(std::min(n, k));
    return b;
}

TEST(Wire, EachCharacterTakesItsBitTimesAtTheSendersRate)
{
    struct Case {
        LineSettings line;
        std::size_t n;
        sched::Nanos expected; // until the last character has arrived
    } cases[] = {
        {{9600, {}}, 1, 1'041'666},          {{9600, {}}, 100, 104'166'666},
        {{115200, {}}, 10, 868'055},         {{921600, {}}, 600, 6'510'416},
        {{9600, {7, 2, 2}}, 10, 11'458'333}, // 1 + 7 + parity + 2 stop bits
        {{9600, {5, 0, 1}}, 2, 1'562'500},   // 1 + 5 + 1.5 stop bits
    };
    for (const auto& c : cases) {
        Bench b(1);
        b.configure(c.line, c.line);
        const sched::Nanos done = b.send(counting(c.n));
        EXPECT_EQ(done, c.expected);
        run_for(c.expected + 10 * kMs);
        EXPECT_EQ(b.rx.all(), counting(c.n));
        ASSERT_FALSE(b.rx.runs.empty());
        EXPECT_EQ(b.rx.runs.back().arrival, c.expected);
        for (const auto& r : b.rx.runs) {
            EXPECT_GE(r.delivered, r.arrival);
            EXPECT_LE(r.delivered, r.arrival + kMs) << "handed over within one quantum";
        }
    }
}

TEST(Wire, SendsQueueBehindEachOtherAndIdleTimeHoldsTheLine)
{
    Bench b(1);
    b.configure({9600, {}}, {9600, {}});
    const sched::Nanos first = b.send(counting(10));
    const sched::Nanos second = b.send(counting(10), 5 * kMs);
    EXPECT_EQ(first, 10'416'666);
    EXPECT_EQ(second, first + 5 * kMs + 10'416'666);
    run_for(40 * kMs);
    EXPECT_EQ(b.rx.all().size(), 20u);
    EXPECT_EQ(b.rx.runs.back().arrival, second);
}

Bytes garbage(std::uint64_t seed, std::uint32_t from, std::uint32_t to, std::size_t n)
{
    Bench b(seed);
    b.configure({from, {}}, {to, {}});
    b.send(counting(n));
    run_for(sched::kSecond);
    return b.rx.all();
}

TEST(Wire, MismatchedReceiverSeesGarbageDeterminedBySeed)
{
    struct Case {
        std::uint32_t from, to;
        std::size_t n, seen;
    } cases[] = {
        {115200, 9600, 120, 10}, // a slow receiver frames fewer characters
        {9600, 921600, 20, 80},  // a fast one at most a few per character
        {921600, 460800, 100, 50},
    };
    for (const auto& c : cases) {
        const Bytes once = garbage(7, c.from, c.to, c.n);
        EXPECT_EQ(once.size(), c.seen) << c.from << " -> " << c.to;
        EXPECT_NE(once, prefix(c.n, c.seen));
        EXPECT_EQ(garbage(7, c.from, c.to, c.n), once) << "same seed, same garbage";
        EXPECT_NE(garbage(8, c.from, c.to, c.n), once) << "another seed, other garbage";
    }

    Bench parity(1);
    parity.configure({9600, {8, 2, 0}}, {9600, {}});
    parity.send(counting(16));
    run_for(100 * kMs);
    EXPECT_EQ(parity.rx.all().size(), 16u);
    EXPECT_NE(parity.rx.all(), counting(16)) << "a format mismatch garbles too";
    EXPECT_EQ(parity.wire.b().stats().garbled, 16u);
}

TEST(Wire, ImpairmentsHitEveryCharacterWhenCertain)
{
    const Bytes sent = counting(50);
    struct Case {
        const char* name;
        Impairments imp;
    } cases[] = {{"drop", {0, 1, 0}}, {"flip", {1, 0, 0}}, {"noise", {0, 0, 1}}};
    for (const auto& c : cases) {
        Bench b(3);
        b.configure({115200, {}}, {115200, {}});
        b.wire.b().impair(c.imp);
        b.send(sent);
        run_for(20 * kMs);
        const Bytes got = b.rx.all();
        const WireStats s = b.wire.b().stats();
        if (c.imp.drop > 0) {
            EXPECT_TRUE(got.empty()) << c.name;
            EXPECT_EQ(s.dropped, sent.size()) << c.name;
        } else if (c.imp.flip > 0) {
            ASSERT_EQ(got.size(), sent.size()) << c.name;
            for (std::size_t i = 0; i < got.size(); ++i) {
                EXPECT_EQ(__builtin_popcount(got[i] ^ sent[i]), 1) << c.name << " at " << i;
            }
        } else {
            ASSERT_EQ(got.size(), 2 * sent.size()) << c.name;
            for (std::size_t i = 0; i < sent.size(); ++i) {
                EXPECT_EQ(got[2 * i], sent[i]) << c.name << " at " << i;
            }
            EXPECT_EQ(s.noise, sent.size()) << c.name;
        }
    }
}

TEST(Wire, DiscardingUnsentKeepsWhatAlreadyLeft)
{
    Bench b(1);
    b.configure({9600, {}}, {9600, {}});
    b.send(counting(100));
    run_for(10 * kMs); // nine characters out, the tenth on its way
    std::size_t dropped;
    {
        sched::StateLock lock(sched::current());
        dropped = b.wire.a().discard_unsent();
    }
    EXPECT_EQ(dropped, 90u);
    run_for(100 * kMs);
    EXPECT_EQ(b.rx.all(), prefix(100, 10));
    EXPECT_EQ(b.wire.b().stats().sent, 10u);
}

TEST(Wire, DiscardingReceivedDropsWhatArrivedButWasNotHandedOver)
{
    Bench b(1, 50 * kMs);
    b.configure({921600, {}}, {921600, {}});
    b.send(counting(10));
    {
        sched::StateLock lock(sched::current());
        EXPECT_EQ(b.wire.b().next_arrival(), 10'850);
    }
    run_for(kMs);
    {
        sched::StateLock lock(sched::current());
        EXPECT_EQ(b.wire.b().next_arrival(), 10'850) << "arrived, not yet handed over";
        b.wire.b().discard_received();
        EXPECT_EQ(b.wire.b().next_arrival(), sched::kForever);
    }
    run_for(100 * kMs);
    EXPECT_TRUE(b.rx.runs.empty());
}

} // namespace
} // namespace mvgps::sim::uart
