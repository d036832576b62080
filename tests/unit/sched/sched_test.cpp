// The scheduler's promises: seeded runs replay exactly, seeds explore different orders,
// virtual time costs no wall time, and a run that cannot go on says who waits on what.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "host/sched/sched.h"

namespace mvgps::sched
{
namespace
{

// A tiny monitor-style event on the scheduler, the shape every host object takes.
struct Flag {
    WaitList waiters;
    bool set = false;

    void raise(Scheduler& s)
    {
        {
            StateLock lk(s);
            set = true;
            s.wake(waiters);
        }
        s.point("raise");
    }
    WaitResult await(Scheduler& s, Nanos deadline)
    {
        StateLock lk(s);
        return s.wait(waiters, "flag", deadline, [this] { return set; });
    }
};

// Three workers each append their name a few times around scheduling points and sleeps.
std::pair<std::vector<std::string>, std::uint64_t> run_workers(std::uint64_t seed)
{
    Install inst(make_simulated(seed));
    Scheduler& s = inst.get();
    std::vector<std::string> order;
    std::vector<Thread*> threads;
    for (const char* name : {"a", "b", "c"}) {
        threads.push_back(s.spawn(name, [&s, &order, name] {
            for (int i = 0; i < 4; ++i) {
                order.emplace_back(name);
                s.point("work");
                s.sleep_until(s.now() + (i + 1) * kMillisecond, "nap");
            }
        }));
    }
    for (Thread* t : threads)
        s.join(t);
    return {order, s.trace_hash()};
}

TEST(SimulatedScheduler, SeedDecidesTheInterleavingAndTrace)
{
    auto base = run_workers(42);
    EXPECT_EQ(run_workers(42), base);
    int different = 0;
    for (std::uint64_t seed = 1; seed < 11; ++seed)
        different += run_workers(seed).first != base.first;
    EXPECT_GT(different, 0);
}

TEST(SimulatedScheduler, TimedWaitsCostVirtualTimeOnly)
{
    Install inst(make_simulated(7));
    Scheduler& s = inst.get();
    Flag never;
    auto wall = std::chrono::steady_clock::now();
    EXPECT_EQ(never.await(s, 5 * kSecond), WaitResult::TimedOut);
    EXPECT_EQ(s.now(), 5 * kSecond);
    EXPECT_LT(std::chrono::steady_clock::now() - wall, std::chrono::seconds(1));
}

// Two threads that wait on each other, and a run that ends with a thread still blocked.
TEST(SimulatedScheduler, StuckRunsNameEveryThreadAndWhatItWaitsOn)
{
    EXPECT_DEATH(
        {
            Install inst(make_simulated(3));
            Scheduler& s = inst.get();
            Flag mine;
            Flag theirs;
            s.spawn("worker", [&] { theirs.await(s, kForever); });
            mine.await(s, kForever);
        },
        "DEADLOCK(.|\n)*'main' waits on flag(.|\n)*'worker' waits on flag(.|\n)*MVGPS_SEED=3");
    EXPECT_DEATH(
        {
            Install inst(make_simulated(5));
            Scheduler& s = inst.get();
            Flag f;
            s.spawn("stuck", [&] { f.await(s, kForever); });
            s.sleep_until(s.now() + kMillisecond, "let it block");
        },
        "threads still live(.|\n)*'stuck' waits on flag");
}

class BothModes : public testing::TestWithParam<Mode>
{
};

TEST_P(BothModes, WakeReleasesAWaiterAndADeadlinePassesWithoutOne)
{
    Install inst(GetParam() == Mode::Simulated ? make_simulated(11) : make_realtime());
    Scheduler& s = inst.get();
    Flag ping, pong, never;
    Thread* t = s.spawn("echo", [&] {
        EXPECT_EQ(ping.await(s, kForever), WaitResult::Ready);
        pong.raise(s);
    });
    ping.raise(s);
    EXPECT_EQ(pong.await(s, s.now() + 10 * kSecond), WaitResult::Ready);
    s.join(t);
    Nanos start = s.now();
    EXPECT_EQ(never.await(s, start + 20 * kMillisecond), WaitResult::TimedOut);
    EXPECT_GE(s.now() - start, 20 * kMillisecond);
}

INSTANTIATE_TEST_SUITE_P(Sched, BothModes, testing::Values(Mode::Simulated, Mode::Realtime),
                         [](const auto& info) {
                             return info.param == Mode::Simulated ? "Simulated" : "Realtime";
                         });

} // namespace
} // namespace mvgps::sched
