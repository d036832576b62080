// Events, waits, system threads and spin locks, in simulated time. System threads run
// their routine at PASSIVE_LEVEL and signal when they end; spin locks exclude, and a seeded
// run of them replays.
#include <wdm.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>

#include "host/kernel/kernel.h"
#include "host/sched/sched.h"

namespace mvgps::kernel::test
{
namespace
{

constexpr LONGLONG kMs = 10'000; // 100 ns units per millisecond

LARGE_INTEGER relative_ms(LONGLONG ms)
{
    LARGE_INTEGER t;
    t.QuadPart = -ms * kMs;
    return t;
}

void delay_ms(LONGLONG ms)
{
    LARGE_INTEGER t = relative_ms(ms);
    KeDelayExecutionThread(KernelMode, FALSE, &t);
}

// A system thread running `body`, referenced so that the test can wait for its end.
class SystemThread
{
  public:
    explicit SystemThread(std::function<void()> body) : body_(std::move(body))
    {
        HANDLE handle;
        EXPECT_EQ(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr,
                                       &SystemThread::run, this),
                  STATUS_SUCCESS);
        EXPECT_EQ(ObReferenceObjectByHandle(handle, THREAD_ALL_ACCESS, *PsThreadType, KernelMode,
                                            &object_, nullptr),
                  STATUS_SUCCESS);
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
    }
    SystemThread(const SystemThread&) = delete;
    SystemThread& operator=(const SystemThread&) = delete;
    ~SystemThread()
    {
        join();
        ObDereferenceObject(object_);
    }
    void join() { KeWaitForSingleObject(object_, Executive, KernelMode, FALSE, nullptr); }
    PVOID object() const { return object_; }

  private:
    static VOID run(PVOID self) { static_cast<SystemThread*>(self)->body_(); }
    std::function<void()> body_;
    PVOID object_ = nullptr;
};

NTSTATUS poll(PVOID object)
{
    LARGE_INTEGER zero{};
    return KeWaitForSingleObject(object, Executive, KernelMode, FALSE, &zero);
}

// Each set of a synchronization event releases one of the threads blocked on it, a set of a
// notification event all of them. The set that releases the last may be followed at once by
// freeing the event, as a signal's owner does at teardown: no waiter touches it afterwards
// (the address checker would see it). The threads run at PASSIVE_LEVEL, and each one's object
// is signalled when it ends, for good.
TEST(Events, SetReleasesOneOrAllWaiters)
{
    for (EVENT_TYPE type : {SynchronizationEvent, NotificationEvent}) {
        for (std::uint64_t seed = 1; seed <= 8; ++seed) {
            SCOPED_TRACE(testing::Message() << "type " << type << " seed " << seed);
            sched::Install s(sched::make_simulated(seed));
            auto* e = static_cast<KEVENT*>(
                ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(KEVENT), 0x74736554));
            KeInitializeEvent(e, type, FALSE);
            LONG released = 0;
            auto waiter = [&] {
                EXPECT_EQ(KeGetCurrentIrql(), PASSIVE_LEVEL);
                EXPECT_EQ(KeWaitForSingleObject(e, Executive, KernelMode, FALSE, nullptr),
                          STATUS_SUCCESS);
                InterlockedIncrement(&released);
            };
            SystemThread a(waiter), b(waiter), c(waiter);
            EXPECT_EQ(poll(a.object()), STATUS_TIMEOUT) << "not ended";
            for (LONG sets = 0; sets < (type == SynchronizationEvent ? 3 : 1); ++sets) {
                delay_ms(1);
                EXPECT_EQ(released, sets);
                KeSetEvent(e, 0, FALSE);
            }
            ExFreePool(e);
            a.join(), b.join(), c.join();
            EXPECT_EQ(released, 3);
            EXPECT_EQ(poll(a.object()), STATUS_SUCCESS) << "an ended thread stays signalled";
        }
    }
}

// Timeouts run on the scheduler's clock, so even the long ones cost no wall-clock time; an
// absolute timeout is read against the system time, the elapsed time against the interrupt
// time, so the two must move together.
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
        {"relative, never set", false, 5000, 10'000, STATUS_TIMEOUT, 5000},
        {"relative, set on another thread first", false, 50, 20, STATUS_SUCCESS, 20},
        {"absolute, never set", true, 30, 10'000, STATUS_TIMEOUT, 30},
        {"absolute, in the past", true, -5, 10'000, STATUS_TIMEOUT, 0},
        {"zero", false, 0, 10'000, STATUS_TIMEOUT, 0},
        {"none", false, -1, 20, STATUS_SUCCESS, 20},
    };
    auto wall = std::chrono::steady_clock::now();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        sched::Install s(sched::make_simulated(6));
        KEVENT e;
        KeInitializeEvent(&e, SynchronizationEvent, FALSE);
        SystemThread setter([&] {
            delay_ms(c.set_after_ms);
            KeSetEvent(&e, 0, FALSE);
        });
        LARGE_INTEGER before, after;
        KeQuerySystemTime(&before);
        LARGE_INTEGER timeout = relative_ms(c.ms);
        if (c.absolute) {
            timeout.QuadPart = before.QuadPart + c.ms * kMs;
        }
        ULONGLONG start = KeQueryInterruptTime();
        EXPECT_EQ(KeWaitForSingleObject(&e, Executive, KernelMode, FALSE,
                                        c.ms == -1 ? nullptr : &timeout),
                  c.expected);
        KeQuerySystemTime(&after);
        EXPECT_EQ(LONGLONG(KeQueryInterruptTime() - start), c.expected_ms * kMs);
        EXPECT_EQ(after.QuadPart - before.QuadPart, c.expected_ms * kMs);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - wall, std::chrono::seconds(1));
}

// Threads that read, yield and write a counter under the lock never lose an update, whatever
// the interleaving: the ones a seed picks, or those real threads produce. A seeded run of
// threads, events and locks replays exactly.
std::uint64_t contend(std::unique_ptr<sched::Scheduler> scheduler)
{
    sched::Install s(std::move(scheduler));
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KEVENT yield;
    KeInitializeEvent(&yield, SynchronizationEvent, FALSE);
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
    return s.get().trace_hash();
}

TEST(SpinLock, ExcludesAndReplays)
{
    for (std::uint64_t seed : {13, 14}) {
        SCOPED_TRACE(testing::Message() << "seed " << seed);
        EXPECT_EQ(contend(sched::make_simulated(seed)), contend(sched::make_simulated(seed)));
    }
    contend(sched::make_realtime());
}

} // namespace
} // namespace mvgps::kernel::test
