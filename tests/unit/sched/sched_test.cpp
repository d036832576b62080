// The scheduler's promises: seeded runs replay exactly, seeds explore different orders,
// virtual time costs no wall time, and a run that cannot go on says who waits on what.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "sched/sched.h"

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

TEST(SimulatedScheduler, SameSeedReplaysTheSameInterleavingAndTrace)
{
    auto first = run_workers(42);
    auto second = run_workers(42);
    EXPECT_EQ(first.first, second.first);
    EXPECT_EQ(first.second, second.second);
}

TEST(SimulatedScheduler, DifferentSeedsExploreDifferentOrders)
{
    auto base = run_workers(1);
    int different = 0;
    for (std::uint64_t seed = 2; seed < 12; ++seed)
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

void wait_for_each_other()
{
    Install inst(make_simulated(3));
    Scheduler& s = inst.get();
    Flag mine;
    Flag theirs;
    Thread* t = s.spawn("worker", [&] { theirs.await(s, kForever); });
    mine.await(s, kForever);
    s.join(t);
}

void leave_a_thread_blocked()
{
    Install inst(make_simulated(5));
    Scheduler& s = inst.get();
    Flag f;
    s.spawn("stuck", [&] { f.await(s, kForever); });
    s.sleep_until(s.now() + kMillisecond, "let it block");
}

TEST(SimulatedScheduler, DeadlockNamesEveryThreadAndWhatItWaitsOn)
{
    EXPECT_DEATH(wait_for_each_other(),
                 "DEADLOCK(.|\n)*'main' waits on flag(.|\n)*'worker' waits on "
                 "flag(.|\n)*MVGPS_SEED=3");
}

TEST(SimulatedScheduler, TeardownWithLiveThreadsIsReported)
{
    EXPECT_DEATH(leave_a_thread_blocked(), "threads still live(.|\n)*'stuck' waits on flag");
}

class BothModes : public testing::TestWithParam<Mode>
{
  protected:
    std::unique_ptr<Scheduler> make()
    {
        return GetParam() == Mode::Simulated ? make_simulated(11) : make_realtime();
    }
};

TEST_P(BothModes, WakeReleasesAWaiterOnAnotherThread)
{
    Install inst(make());
    Scheduler& s = inst.get();
    Flag ping, pong;
    Thread* t = s.spawn("echo", [&] {
        ASSERT_EQ(ping.await(s, kForever), WaitResult::Ready);
        pong.raise(s);
    });
    ping.raise(s);
    EXPECT_EQ(pong.await(s, s.now() + 10 * kSecond), WaitResult::Ready);
    s.join(t);
}

TEST_P(BothModes, DeadlinePassesWithoutAWake)
{
    Install inst(make());
    Scheduler& s = inst.get();
    Flag f;
    Nanos start = s.now();
    EXPECT_EQ(f.await(s, start + 20 * kMillisecond), WaitResult::TimedOut);
    EXPECT_GE(s.now() - start, 20 * kMillisecond);
}

INSTANTIATE_TEST_SUITE_P(Sched, BothModes, testing::Values(Mode::Simulated, Mode::Realtime),
                         [](const auto& info) {
                             return info.param == Mode::Simulated ? "Simulated" : "Realtime";
                         });

} // namespace
} // namespace mvgps::sched
