#include <string>
#include <vector>

#include "fixture.h"
#include "kernel/kernel.h"

namespace mvgps::wdf::test
{
namespace
{

using WaitLockTest = FrameworkTest;

TEST_F(WaitLockTest, HoldersExcludeEachOtherAcrossWaits)
{
    WDFWAITLOCK lock;
    ASSERT_EQ(WdfWaitLockCreate(WDF_NO_OBJECT_ATTRIBUTES, &lock), STATUS_SUCCESS);
    auto& s = sched::current();
    int inside = 0;
    int most_inside = 0;
    std::vector<sched::Thread*> threads;
    for (int i = 0; i < 4; i++) {
        threads.push_back(s.spawn("worker" + std::to_string(i), [&] {
            for (int round = 0; round < 5; round++) {
                ASSERT_EQ(WdfWaitLockAcquire(lock, nullptr), STATUS_SUCCESS);
                most_inside = std::max(most_inside, ++inside);
                s.sleep_until(s.now() + sched::kMillisecond, "work");
                --inside;
                WdfWaitLockRelease(lock);
            }
        }));
    }
    for (auto* t : threads) {
        s.join(t);
    }
    EXPECT_EQ(most_inside, 1);
}

TEST_F(WaitLockTest, TimeoutsBoundTheWait)
{
    WDFWAITLOCK lock;
    ASSERT_EQ(WdfWaitLockCreate(WDF_NO_OBJECT_ATTRIBUTES, &lock), STATUS_SUCCESS);
    ASSERT_EQ(WdfWaitLockAcquire(lock, nullptr), STATUS_SUCCESS);
    auto& s = sched::current();
    struct Case {
        LONGLONG timeout;
        sched::Nanos waited;
    };
    for (const Case c : {Case{0, 0}, Case{-10 * 10'000, 10 * sched::kMillisecond}}) {
        NTSTATUS status = STATUS_SUCCESS;
        sched::Nanos start = 0, end = 0;
        auto* t = s.spawn("contender", [&] {
            LONGLONG timeout = c.timeout;
            start = s.now();
            status = WdfWaitLockAcquire(lock, &timeout);
            end = s.now();
        });
        s.join(t);
        EXPECT_EQ(status, STATUS_TIMEOUT);
        EXPECT_EQ(end - start, c.waited);
    }
    WdfWaitLockRelease(lock);
    LONGLONG zero = 0;
    EXPECT_EQ(WdfWaitLockAcquire(lock, &zero), STATUS_SUCCESS) << "a free lock is taken at once";
    WdfWaitLockRelease(lock);
}

using WaitLockDeathTest = WaitLockTest;

TEST_F(WaitLockDeathTest, TakingAboveApcLevelOrReleasingUnownedStops)
{
    WDFWAITLOCK lock;
    ASSERT_EQ(WdfWaitLockCreate(WDF_NO_OBJECT_ATTRIBUTES, &lock), STATUS_SUCCESS);
    EXPECT_DEATH(
        {
            KSPIN_LOCK spin;
            KeInitializeSpinLock(&spin);
            KeAcquireSpinLockRaiseToDpc(&spin);
            WdfWaitLockAcquire(lock, nullptr);
        },
        "wait lock taken above APC_LEVEL");
    EXPECT_DEATH(WdfWaitLockRelease(lock), "does not hold it");
}

} // namespace
} // namespace mvgps::wdf::test
