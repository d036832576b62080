// The wire: character timing at the sender's rate, garbage on a mismatch, impairments.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "host/sched/sched.h"
#include "sim/uart/wire.h"
#include "sim/testkit/client.h"
#include "host/verifier/faults.h"

namespace mvgps::sim::uart
{
namespace
{

using testkit::Bytes;
using testkit::run_for;
constexpr sched::Nanos kMs = sched::kMillisecond;

// What reached end b, when the last of it arrived, and how late each run was handed over.
struct Recorder final : LineReceiver {
    Bytes bytes;
    sched::Nanos last_arrival = 0;
    sched::Nanos least_lag = sched::kForever;
    sched::Nanos most_lag = 0;
    void on_bytes(std::span<const std::uint8_t> b, sched::Nanos arrival) override
    {
        bytes.insert(bytes.end(), b.begin(), b.end());
        last_arrival = arrival;
        least_lag = std::min(least_lag, sched::current().now() - arrival);
        most_lag = std::max(most_lag, sched::current().now() - arrival);
    }
};

// A wire with a recorder on end b, seeded as asked; end a sends.
struct Bench {
    Bench(std::uint64_t seed, const LineSettings& a, const LineSettings& b)
        : install(sched::make_simulated(seed))
    {
        sched::StateLock lock(sched::current());
        wire.a().configure(a);
        wire.b().configure(b);
        wire.b().attach(&rx);
    }
    ~Bench()
    {
        sched::StateLock lock(sched::current());
        wire.b().attach(nullptr);
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
        Bench b(1, c.line, c.line);
        const Bytes one = counting(c.n);
        EXPECT_EQ(b.send(one), c.expected);
        // A second send queues behind the first and holds the line idle before it starts.
        const sched::Nanos second = b.send(one, 5 * kMs);
        EXPECT_EQ(second, 2 * c.expected + 5 * kMs);
        run_for(second + 10 * kMs);
        EXPECT_EQ(b.rx.bytes, testkit::cat({one, one}));
        EXPECT_EQ(b.rx.last_arrival, second);
        EXPECT_GE(b.rx.least_lag, 0);
        EXPECT_LE(b.rx.most_lag, kMs) << "handed over within one quantum";
    }
}

Bytes garbage(std::uint64_t seed, const LineSettings& from, const LineSettings& to, std::size_t n)
{
    Bench b(seed, from, to);
    b.send(counting(n));
    run_for(sched::kSecond);
    EXPECT_EQ(b.wire.b().stats().garbled, b.rx.bytes.size());
    return b.rx.bytes;
}

TEST(Wire, MismatchedReceiverSeesGarbageDeterminedBySeed)
{
    struct Case {
        LineSettings from, to;
        std::size_t n, seen;
    } cases[] = {
        {{115200, {}}, {9600, {}}, 120, 10}, // a slow receiver frames fewer characters
        {{9600, {}}, {921600, {}}, 20, 80},  // a fast one at most a few per character
        {{921600, {}}, {460800, {}}, 100, 50},
        {{9600, {8, 2, 0}}, {9600, {}}, 16, 16}, // the format differs
    };
    for (const auto& c : cases) {
        const Bytes once = garbage(7, c.from, c.to, c.n);
        EXPECT_EQ(once.size(), c.seen) << c.from.rate << " -> " << c.to.rate;
        EXPECT_NE(once, counting(c.seen)) << "not what was sent";
        EXPECT_EQ(garbage(7, c.from, c.to, c.n), once) << "same seed, same garbage";
        EXPECT_NE(garbage(8, c.from, c.to, c.n), once) << "another seed, other garbage";
    }
}

TEST(Wire, ImpairmentsHitEveryCharacterWhenCertain)
{
    const Bytes sent = counting(50);
    struct Case {
        Impairments imp;
        std::uint64_t WireStats::*counter;
        std::size_t stride; // characters received per character sent
    } cases[] = {{{0, 1, 0}, &WireStats::dropped, 0},
                 {{1, 0, 0}, &WireStats::flipped, 1},
                 {{0, 0, 1}, &WireStats::noise, 2}};
    for (const auto& c : cases) {
        Bench b(3, {115200, {}}, {115200, {}});
        b.wire.b().impair(c.imp);
        b.send(sent);
        run_for(20 * kMs);
        EXPECT_EQ(b.wire.b().stats().*c.counter, sent.size());
        ASSERT_EQ(b.rx.bytes.size(), c.stride * sent.size());
        for (std::size_t i = 0; c.stride > 0 && i < sent.size(); ++i) {
            // A flip changes one bit; noise comes after the character it follows.
            EXPECT_EQ(__builtin_popcount(b.rx.bytes[i * c.stride] ^ sent[i]), c.imp.flip > 0);
        }
    }
}

// Wire noise and injected faults both draw from streams of the run's seed: a replay sees the
// same of each, and a run that draws faults sees the same noise as one that does not.
TEST(Wire, NoiseAndFaultsReplayFromTheRunSeedApart)
{
    struct Outcome {
        Bytes received;
        std::string faults;
    };
    auto run = [](std::uint64_t seed, bool draw_faults) {
        Bench b(seed, {115200, {}}, {115200, {}});
        b.wire.b().impair({0.2, 0.2, 0.2});
        verifier::FaultRule rule;
        rule.when = verifier::FaultRule::When::Random;
        rule.probability = 0.5;
        rule.status = -1;
        verifier::add_fault(rule);
        Outcome out;
        for (std::uint8_t byte : counting(64)) {
            b.send({byte});
            if (draw_faults) {
                out.faults += verifier::inject(verifier::Site::Pool, 0) != 0 ? 'x' : '.';
            }
        }
        verifier::clear_faults();
        run_for(20 * kMs);
        out.received = b.rx.bytes;
        return out;
    };
    const Outcome first = run(5, true);
    EXPECT_NE(first.faults.find('x'), std::string::npos);
    EXPECT_NE(first.faults.find('.'), std::string::npos);
    struct Case {
        const char* name;
        std::uint64_t seed;
        bool draw_faults;
        bool same_noise, same_faults;
    } cases[] = {
        {"replay", 5, true, true, true},
        {"no fault drawn", 5, false, true, false},
        {"another seed", 6, true, false, false},
    };
    for (const Case& c : cases) {
        const Outcome o = run(c.seed, c.draw_faults);
        EXPECT_EQ(o.received == first.received, c.same_noise) << c.name;
        EXPECT_EQ(o.faults == first.faults, c.same_faults) << c.name;
    }
}

} // namespace
} // namespace mvgps::sim::uart
