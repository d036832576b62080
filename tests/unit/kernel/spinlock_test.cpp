// Spin locks raise to DISPATCH_LEVEL, give back the caller's level, and exclude.
#include <wdm.h>

#include <gtest/gtest.h>

#include "kernel/kernel.h"
#include "kernel_test.h"
#include "sched/sched.h"

namespace mvgps::kernel::test
{
namespace
{

TEST(SpinLock, RaisesToDispatchAndRestoresTheCallersLevel)
{
    sched::Install s(sched::make_simulated(11));
    for (KIRQL start : {KIRQL(PASSIVE_LEVEL), KIRQL(APC_LEVEL), KIRQL(DISPATCH_LEVEL)}) {
        SCOPED_TRACE(testing::Message() << "from IRQL " << int(start));
        KIRQL entry;
        KeRaiseIrql(start, &entry);
        KSPIN_LOCK lock;
        KeInitializeSpinLock(&lock);
        KIRQL old = KeAcquireSpinLockRaiseToDpc(&lock);
        EXPECT_EQ(old, start);
        EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
        EXPECT_EQ(current_irql(), DISPATCH_LEVEL);
        EXPECT_EQ(spin_locks_held(), 1u);
        EXPECT_NE(lock, 0u) << "the lock word records its owner";
        KeReleaseSpinLock(&lock, old);
        EXPECT_EQ(KeGetCurrentIrql(), start);
        EXPECT_EQ(spin_locks_held(), 0u);
        EXPECT_EQ(lock, 0u);
        KeLowerIrql(entry);
    }
}

TEST(SpinLock, AtDpcLevelKeepsTheLevel)
{
    sched::Install s(sched::make_simulated(12));
    KSPIN_LOCK a, b;
    KeInitializeSpinLock(&a);
    KeInitializeSpinLock(&b);
    KIRQL old = KeAcquireSpinLockRaiseToDpc(&a);
    KeAcquireSpinLockAtDpcLevel(&b);
    EXPECT_EQ(spin_locks_held(), 2u);
    KeReleaseSpinLockFromDpcLevel(&b);
    EXPECT_EQ(KeGetCurrentIrql(), DISPATCH_LEVEL);
    KeReleaseSpinLock(&a, old);
    EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
}

// Threads that read, yield and write a counter under the lock never lose an update, whatever
// the interleaving: the ones a seed picks, or those real threads produce.
void expect_exclusion(std::unique_ptr<sched::Scheduler> scheduler)
{
    sched::Install s(std::move(scheduler));
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KEVENT yield;
    KeInitializeEvent(&yield, NotificationEvent, FALSE);
    LONG counter = 0;
    LONG inside = 0;
    LONG most_inside = 0;
    auto body = [&] {
        for (int i = 0; i < 200; ++i) {
            KIRQL old = KeAcquireSpinLockRaiseToDpc(&lock);
            most_inside = std::max(most_inside, ++inside);
            LONG seen = counter;
            KeSetEvent(&yield, 0, FALSE); // a scheduling point inside the lock
            counter = seen + 1;
            --inside;
            KeReleaseSpinLock(&lock, old);
        }
    };
    {
        SystemThread a(body), b(body), c(body);
    }
    EXPECT_EQ(counter, 600);
    EXPECT_EQ(most_inside, 1);
}

TEST(SpinLock, Excludes)
{
    for (std::uint64_t seed : {13, 14, 15}) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        expect_exclusion(sched::make_simulated(seed));
    }
}

TEST(SpinLock, ExcludesOnRealThreads)
{
    expect_exclusion(sched::make_realtime());
}

} // namespace
} // namespace mvgps::kernel::test
