// Events, waits, delays and the clocks. An event's whole state lives in its 24 bytes: the
// signal state, and the wait-list head reused as the scheduler's list of blocked threads.
#include "host/kernel/internal.h"

#include <algorithm>
#include <deque>
#include <new>
#include <string>
#include <unordered_map>

#include "host/verifier/verifier.h"

namespace mvgps::kernel::detail
{

static_assert(sizeof(sched::WaitList) == sizeof(LIST_ENTRY) &&
                  alignof(sched::WaitList) <= alignof(LIST_ENTRY),
              "the scheduler's wait list fits the dispatcher header's list head");

sched::WaitList& waiters(DISPATCHER_HEADER& header)
{
    return *std::launder(reinterpret_cast<sched::WaitList*>(&header.WaitListHead));
}

namespace
{

// A blocked wait. The thread that signals the object satisfies it on the waiter's behalf, as
// the real dispatcher does, so a released waiter never looks at the object again: its owner
// may free it right after the set (a signal freed while a thread still waits on it).
struct WaitBlock {
    bool satisfied = false;
};

// Blocked waits per object, oldest first. Only touched under the scheduler's state lock.
std::unordered_map<const DISPATCHER_HEADER*, std::deque<WaitBlock*>>& g_blocks()
{
    static auto* blocks = new std::unordered_map<const DISPATCHER_HEADER*, std::deque<WaitBlock*>>;
    return *blocks;
}

// With the state lock held, after the object became signalled: a synchronization event
// releases its oldest waiter and resets; anything else releases every waiter and stays set.
void satisfy_waits(sched::Scheduler& s, DISPATCHER_HEADER& header)
{
    auto it = g_blocks().find(&header);
    if (it == g_blocks().end()) {
        return;
    }
    auto& queue = it->second;
    if (header.Type == kEventSynchronizationObject) {
        queue.front()->satisfied = true;
        queue.pop_front();
        header.SignalState = 0;
    } else {
        for (WaitBlock* block : queue) {
            block->satisfied = true;
        }
        queue.clear();
    }
    if (queue.empty()) {
        g_blocks().erase(it);
    }
    s.wake(waiters(header));
}

void forget_wait(const DISPATCHER_HEADER* header, WaitBlock* block)
{
    auto it = g_blocks().find(header);
    if (it == g_blocks().end()) {
        return;
    }
    auto& queue = it->second;
    queue.erase(std::find(queue.begin(), queue.end(), block));
    if (queue.empty()) {
        g_blocks().erase(it);
    }
}

} // namespace

void signal_header(DISPATCHER_HEADER& header)
{
    auto& s = sched::current();
    sched::StateLock state(s);
    header.SignalState = 1;
    satisfy_waits(s, header);
}

namespace
{

// System time counts 100 ns units since 1601; the scheduler's calendar counts nanoseconds
// since 1970.
constexpr LONGLONG kUnixEpochAsSystemTime = 116'444'736'000'000'000LL;

LONGLONG system_time(sched::Scheduler& s)
{
    return kUnixEpochAsSystemTime + (s.epoch() + s.now()) / 100;
}

sched::Nanos after(sched::Nanos now, ULONGLONG hundreds)
{
    if (hundreds > static_cast<ULONGLONG>(sched::kForever - now) / 100) {
        return sched::kForever;
    }
    return now + static_cast<sched::Nanos>(hundreds) * 100;
}

void check_header(DISPATCHER_HEADER* header, const char* caller)
{
    bool event =
        header->Type == kEventNotificationObject || header->Type == kEventSynchronizationObject;
    bool known = event || header->Type == kThreadObject;
    if (!known || header->Size == 0) {
        verifier::bugcheck(verifier::kDriverVerifierViolation,
                           std::string(caller) +
                               " on an object that is not an initialised event or thread",
                           reinterpret_cast<ULONG_PTR>(header), header->Type, header->Size);
    }
}

// Takes the object if it is signalled: a synchronization event resets as it releases.
bool try_take(DISPATCHER_HEADER* header)
{
    if (header->SignalState == 0) {
        return false;
    }
    if (header->Type == kEventSynchronizationObject) {
        header->SignalState = 0;
    }
    return true;
}

void check_wait_irql(const char* caller, const LARGE_INTEGER* timeout)
{
    KIRQL irql = this_thread().irql;
    if (irql >= DISPATCH_LEVEL && (timeout == nullptr || timeout->QuadPart != 0)) {
        verifier::bugcheck(verifier::kDriverVerifierViolation,
                           std::string(caller) +
                               (timeout ? " with a timeout" : " without a timeout") + " at " +
                               irql_name(irql),
                           irql, timeout ? static_cast<ULONG_PTR>(timeout->QuadPart) : 0);
    }
}

LONG set_state(PRKEVENT event, LONG state, const char* caller, const char* point)
{
    check_header(&event->Header, caller);
    auto& s = sched::current();
    LONG previous;
    {
        sched::StateLock lock(s);
        previous = event->Header.SignalState;
        event->Header.SignalState = state;
        if (state != 0) {
            satisfy_waits(s, event->Header);
        }
    }
    s.point(point);
    return previous;
}

} // namespace

} // namespace mvgps::kernel::detail

namespace mvgps::kernel
{

sched::Nanos deadline_from(const LONGLONG* timeout)
{
    if (timeout == nullptr) {
        return sched::kForever;
    }
    sched::Scheduler& s = sched::current();
    sched::Nanos now = s.now();
    if (*timeout < 0) {
        return detail::after(now, static_cast<ULONGLONG>(-(*timeout + 1)) + 1);
    }
    LONGLONG until = *timeout - detail::system_time(s);
    return until <= 0 ? now : detail::after(now, static_cast<ULONGLONG>(until));
}

} // namespace mvgps::kernel

using namespace mvgps;
using namespace mvgps::kernel::detail;

extern "C" {

VOID KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State)
{
    Event->Header.Type =
        Type == SynchronizationEvent ? kEventSynchronizationObject : kEventNotificationObject;
    Event->Header.Signalling = 0;
    Event->Header.Size = kEventSize;
    Event->Header.Reserved1 = 0;
    Event->Header.SignalState = State ? 1 : 0;
    new (&Event->Header.WaitListHead) sched::WaitList{};
}

LONG KeSetEvent(PRKEVENT Event, KPRIORITY, BOOLEAN)
{
    return set_state(Event, 1, "KeSetEvent", "KeSetEvent");
}

VOID KeClearEvent(PRKEVENT Event)
{
    set_state(Event, 0, "KeClearEvent", "KeClearEvent");
}

LONG KeResetEvent(PRKEVENT Event)
{
    return set_state(Event, 0, "KeResetEvent", "KeResetEvent");
}

LONG KeReadStateEvent(PRKEVENT Event)
{
    check_header(&Event->Header, "KeReadStateEvent");
    sched::StateLock lock(sched::current());
    return Event->Header.SignalState;
}

NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON, KPROCESSOR_MODE, BOOLEAN,
                               PLARGE_INTEGER Timeout)
{
    auto* header = static_cast<DISPATCHER_HEADER*>(Object);
    check_header(header, "KeWaitForSingleObject");
    check_wait_irql("KeWaitForSingleObject", Timeout);
    auto& s = sched::current();
    const char* what = header->Type == kThreadObject ? "thread object" : "event";
    if (Timeout != nullptr && Timeout->QuadPart == 0) {
        bool taken;
        {
            sched::StateLock lock(s);
            taken = try_take(header);
        }
        s.point(what);
        return taken ? STATUS_SUCCESS : STATUS_TIMEOUT;
    }
    sched::Nanos deadline = kernel::deadline_from(Timeout ? &Timeout->QuadPart : nullptr);
    sched::StateLock lock(s);
    if (try_take(header)) {
        return STATUS_SUCCESS;
    }
    WaitBlock block;
    g_blocks()[header].push_back(&block);
    s.wait(waiters(*header), what, deadline, [&block] { return block.satisfied; });
    if (!block.satisfied) {
        forget_wait(header, &block);
        return STATUS_TIMEOUT;
    }
    return STATUS_SUCCESS;
}

NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE, BOOLEAN, PLARGE_INTEGER Interval)
{
    check_wait_irql("KeDelayExecutionThread", Interval);
    auto& s = sched::current();
    if (Interval->QuadPart == 0) {
        s.point("KeDelayExecutionThread");
    } else {
        s.sleep_until(kernel::deadline_from(&Interval->QuadPart), "KeDelayExecutionThread");
    }
    return STATUS_SUCCESS;
}

ULONGLONG KeQueryInterruptTime(VOID)
{
    return static_cast<ULONGLONG>(sched::current().now() / 100);
}

VOID KeQuerySystemTime(PLARGE_INTEGER CurrentTime)
{
    CurrentTime->QuadPart = system_time(sched::current());
}

} // extern "C"
