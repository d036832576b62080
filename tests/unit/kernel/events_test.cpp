// Events, waits, delays and the clock, in simulated time.
#include <wdm.h>

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "kernel_test.h"
#include "sched/sched.h"

namespace mvgps::kernel::test
{
namespace
{

NTSTATUS poll(KEVENT& e)
{
    LARGE_INTEGER zero{};
    return KeWaitForSingleObject(&e, Executive, KernelMode, FALSE, &zero);
}

// What repeated polls see after a set: a notification event stays set until cleared, a
// synchronization event lets exactly one wait through.
TEST(Events, SignalStateAcrossWaits)
{
    sched::Install s(sched::make_simulated(1));
    struct Case {
        EVENT_TYPE type;
        BOOLEAN initial;
        bool set;
        std::vector<NTSTATUS> polls;
    };
    const Case cases[] = {
        {NotificationEvent, FALSE, false, {STATUS_TIMEOUT, STATUS_TIMEOUT}},
        {NotificationEvent, FALSE, true, {STATUS_SUCCESS, STATUS_SUCCESS, STATUS_SUCCESS}},
        {NotificationEvent, TRUE, false, {STATUS_SUCCESS, STATUS_SUCCESS}},
        {SynchronizationEvent, FALSE, true, {STATUS_SUCCESS, STATUS_TIMEOUT, STATUS_TIMEOUT}},
        {SynchronizationEvent, TRUE, false, {STATUS_SUCCESS, STATUS_TIMEOUT}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << "type " << c.type << " initial " << int(c.initial) << " set " << c.set);
        KEVENT e;
        KeInitializeEvent(&e, c.type, c.initial);
        if (c.set) {
            EXPECT_EQ(KeSetEvent(&e, 0, FALSE), 0);
        }
        for (NTSTATUS expected : c.polls) {
            EXPECT_EQ(poll(e), expected);
        }
    }
}

TEST(Events, SetClearAndResetReportThePreviousState)
{
    sched::Install s(sched::make_simulated(2));
    KEVENT e;
    KeInitializeEvent(&e, NotificationEvent, FALSE);
    EXPECT_EQ(KeReadStateEvent(&e), 0);
    EXPECT_EQ(KeSetEvent(&e, 0, FALSE), 0);
    EXPECT_EQ(KeSetEvent(&e, 0, FALSE), 1);
    EXPECT_EQ(KeReadStateEvent(&e), 1);
    EXPECT_EQ(KeResetEvent(&e), 1);
    EXPECT_EQ(KeResetEvent(&e), 0);
    KeSetEvent(&e, 0, FALSE);
    KeClearEvent(&e);
    EXPECT_EQ(poll(e), STATUS_TIMEOUT);
}

// Each set of a synchronization event releases one of the threads blocked on it; a set of a
// notification event releases them all.
TEST(Events, SetReleasesOneOrAllWaiters)
{
    for (EVENT_TYPE type : {SynchronizationEvent, NotificationEvent}) {
        for (std::uint64_t seed : {3, 4, 5}) {
            SCOPED_TRACE(testing::Message() << "type " << type << " seed " << seed);
            sched::Install s(sched::make_simulated(seed));
            KEVENT e;
            KeInitializeEvent(&e, type, FALSE);
            LONG released = 0;
            std::vector<std::unique_ptr<SystemThread>> waiters;
            for (int i = 0; i < 3; ++i) {
                waiters.push_back(std::make_unique<SystemThread>([&] {
                    KeWaitForSingleObject(&e, Executive, KernelMode, FALSE, nullptr);
                    InterlockedIncrement(&released);
                }));
            }
            delay_ms(1);
            EXPECT_EQ(released, 0);
            KeSetEvent(&e, 0, FALSE);
            delay_ms(1);
            EXPECT_EQ(released, type == SynchronizationEvent ? 1 : 3);
            for (int i = 0; i < 2; ++i) {
                KeSetEvent(&e, 0, FALSE);
                delay_ms(1);
            }
            waiters.clear();
            EXPECT_EQ(released, 3);
        }
    }
}

// Timeouts run on the scheduler's clock: relative, absolute, polling and none at all.
TEST(Events, WaitTimeouts)
{
    struct Case {
        const char* name;
        bool absolute;
        LONGLONG ms; // relative, or from now when absolute; -1 for no timeout
        LONGLONG set_after_ms;
        NTSTATUS expected;
        LONGLONG expected_ms;
    };
    const Case cases[] = {
        {"relative, never set", false, 50, 1000, STATUS_TIMEOUT, 50},
        {"relative, set first", false, 50, 20, STATUS_SUCCESS, 20},
        {"absolute, never set", true, 30, 1000, STATUS_TIMEOUT, 30},
        {"absolute, in the past", true, -5, 1000, STATUS_TIMEOUT, 0},
        {"poll", false, 0, 1000, STATUS_TIMEOUT, 0},
        {"forever", false, -1, 20, STATUS_SUCCESS, 20},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        sched::Install s(sched::make_simulated(6));
        KEVENT e;
        KeInitializeEvent(&e, NotificationEvent, FALSE);
        SystemThread setter([&] {
            delay_ms(c.set_after_ms);
            KeSetEvent(&e, 0, FALSE);
        });
        LARGE_INTEGER timeout;
        if (c.absolute) {
            KeQuerySystemTime(&timeout);
            timeout.QuadPart += c.ms * kMs;
        } else {
            timeout.QuadPart = -c.ms * kMs;
        }
        ULONGLONG start = KeQueryInterruptTime();
        NTSTATUS status = KeWaitForSingleObject(&e, Executive, KernelMode, FALSE,
                                                c.ms == -1 ? nullptr : &timeout);
        EXPECT_EQ(status, c.expected);
        EXPECT_EQ(elapsed_ms(start), c.expected_ms);
    }
}

// The acknowledgement timeouts the driver waits on cost no wall-clock time in simulation.
TEST(Events, LongTimedWaitCostsNoWallTime)
{
    sched::Install s(sched::make_simulated(7));
    KEVENT e;
    KeInitializeEvent(&e, NotificationEvent, FALSE);
    auto wall = std::chrono::steady_clock::now();
    ULONGLONG start = KeQueryInterruptTime();
    LARGE_INTEGER five_seconds = relative_ms(5000);
    EXPECT_EQ(KeWaitForSingleObject(&e, Executive, KernelMode, FALSE, &five_seconds),
              STATUS_TIMEOUT);
    EXPECT_EQ(KeQueryInterruptTime() - start, ULONGLONG(5000 * kMs));
    EXPECT_LT(std::chrono::steady_clock::now() - wall, std::chrono::seconds(1));
}

TEST(Events, SetOnAnotherThreadWakesTheWaiterAtThatTime)
{
    sched::Install s(sched::make_simulated(8));
    KEVENT e;
    KeInitializeEvent(&e, SynchronizationEvent, FALSE);
    LONGLONG woke_at = -1;
    ULONGLONG start = KeQueryInterruptTime();
    SystemThread waiter([&] {
        EXPECT_EQ(KeWaitForSingleObject(&e, Executive, KernelMode, FALSE, nullptr), STATUS_SUCCESS);
        woke_at = elapsed_ms(start);
    });
    delay_ms(10);
    KeSetEvent(&e, 0, FALSE);
    waiter.join();
    EXPECT_EQ(woke_at, 10);
}

// Set-then-free, as a signal's owner does at teardown: the set releases the waiter there and
// then, so it never touches the freed event (the address checker would see it if it did).
TEST(Events, WaiterIsReleasedBeforeTheEventIsFreed)
{
    for (EVENT_TYPE type : {SynchronizationEvent, NotificationEvent}) {
        for (std::uint64_t seed = 1; seed <= 16; ++seed) {
            SCOPED_TRACE(testing::Message() << "type " << type << " seed " << seed);
            sched::Install s(sched::make_simulated(seed));
            auto* e = static_cast<KEVENT*>(
                ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(KEVENT), 0x74736554));
            KeInitializeEvent(e, type, FALSE);
            NTSTATUS status = STATUS_PENDING;
            SystemThread waiter(
                [&] { status = KeWaitForSingleObject(e, Executive, KernelMode, FALSE, nullptr); });
            delay_ms(1);
            KeSetEvent(e, 0, FALSE);
            ExFreePool(e);
            waiter.join();
            EXPECT_EQ(status, STATUS_SUCCESS);
        }
    }
}

TEST(Clock, DelaysAdvanceInterruptAndSystemTimeTogether)
{
    sched::Install s(sched::make_simulated(9));
    LARGE_INTEGER system_before;
    KeQuerySystemTime(&system_before);
    ULONGLONG before = KeQueryInterruptTime();
    delay_ms(250);
    LARGE_INTEGER system_after;
    KeQuerySystemTime(&system_after);
    EXPECT_EQ(KeQueryInterruptTime() - before, ULONGLONG(250 * kMs));
    EXPECT_EQ(system_after.QuadPart - system_before.QuadPart, 250 * kMs);
}

// A run of threads, events and locks replays exactly from its seed.
std::uint64_t scenario_hash(std::uint64_t seed)
{
    sched::Install s(sched::make_simulated(seed));
    KEVENT e;
    KeInitializeEvent(&e, SynchronizationEvent, FALSE);
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    LONG counter = 0;
    {
        std::vector<std::unique_ptr<SystemThread>> threads;
        for (int i = 0; i < 4; ++i) {
            threads.push_back(std::make_unique<SystemThread>([&] {
                for (int j = 0; j < 5; ++j) {
                    KIRQL old = KeAcquireSpinLockRaiseToDpc(&lock);
                    ++counter;
                    KeReleaseSpinLock(&lock, old);
                    KeSetEvent(&e, 0, FALSE);
                }
            }));
        }
    }
    EXPECT_EQ(counter, 20);
    return s.get().trace_hash();
}

TEST(Clock, SameSeedReplaysTheSameRun)
{
    EXPECT_EQ(scenario_hash(42), scenario_hash(42));
}

} // namespace
} // namespace mvgps::kernel::test
