// Spin locks: the 8-byte lock word holds its owner; a contended acquire blocks through the
// scheduler, so a simulated run interleaves lock holders deterministically.
#include "host/kernel/internal.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>
#include <string>

#include "host/verifier/verifier.h"

namespace mvgps::kernel::detail
{
namespace
{

// Waiters of all spin locks, spread over a few lists by lock address. A release wakes the
// list of its lock; waiters for another lock on the same list look again and sleep on.
std::array<sched::WaitList, 64> g_spin_waiters;

sched::WaitList& waiters_of(const KSPIN_LOCK* lock)
{
    return g_spin_waiters[(reinterpret_cast<ULONG_PTR>(lock) >> 3) % g_spin_waiters.size()];
}

ULONG_PTR owner_of(const KSPIN_LOCK* lock)
{
    return __atomic_load_n(lock, __ATOMIC_ACQUIRE);
}

std::string lock_text(const char* what, const KSPIN_LOCK* lock)
{
    char text[96];
    std::snprintf(text, sizeof text, "%s %p", what, static_cast<const void*>(lock));
    return text;
}

void acquire(PKSPIN_LOCK lock)
{
    auto& s = sched::current();
    auto self = reinterpret_cast<ULONG_PTR>(s.self());
    if (owner_of(lock) == self) {
        verifier::bugcheck(verifier::kSpinLockAlreadyOwned,
                           "spin lock acquired again by the thread that holds it",
                           reinterpret_cast<ULONG_PTR>(lock));
    }
    s.point("spin lock acquire");
    {
        sched::StateLock state(s);
        s.wait(waiters_of(lock), "spin lock", sched::kForever, [lock, self] {
            ULONG_PTR free = 0;
            return __atomic_compare_exchange_n(lock, &free, self, false, __ATOMIC_ACQ_REL,
                                               __ATOMIC_ACQUIRE);
        });
    }
    this_thread().held.push_back(lock);
    verifier::note(lock_text("acquired spin lock", lock));
}

void release(PKSPIN_LOCK lock)
{
    auto& s = sched::current();
    auto self = reinterpret_cast<ULONG_PTR>(s.self());
    ULONG_PTR owner = owner_of(lock);
    if (owner != self) {
        verifier::bugcheck(verifier::kSpinLockNotOwned,
                           owner == 0 ? "spin lock released while it is free"
                                      : "spin lock released by a thread that does not hold it",
                           reinterpret_cast<ULONG_PTR>(lock), owner);
    }
    auto& held = this_thread().held;
    held.erase(std::find(held.begin(), held.end(), lock));
    {
        sched::StateLock state(s);
        __atomic_store_n(lock, ULONG_PTR{0}, __ATOMIC_RELEASE);
        s.wake(waiters_of(lock));
    }
    verifier::note(lock_text("released spin lock", lock));
}

void require_dispatch(const char* caller)
{
    KIRQL irql = this_thread().irql;
    if (irql < DISPATCH_LEVEL) {
        verifier::bugcheck(verifier::kDriverVerifierViolation,
                           std::string(caller) + " called at " + irql_name(irql), irql);
    }
}

} // namespace
} // namespace mvgps::kernel::detail

using namespace mvgps;
using namespace mvgps::kernel::detail;

extern "C" {

VOID KeInitializeSpinLock(PKSPIN_LOCK SpinLock)
{
    __atomic_store_n(SpinLock, 0, __ATOMIC_RELEASE);
}

KIRQL KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock)
{
    KIRQL old = this_thread().irql;
    raise_irql(DISPATCH_LEVEL, "KeAcquireSpinLockRaiseToDpc");
    acquire(SpinLock);
    return old;
}

VOID KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql)
{
    release(SpinLock);
    lower_irql(NewIrql, "KeReleaseSpinLock");
    sched::current().point("spin lock release");
}

VOID KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock)
{
    require_dispatch("KeAcquireSpinLockAtDpcLevel");
    acquire(SpinLock);
}

VOID KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock)
{
    require_dispatch("KeReleaseSpinLockFromDpcLevel");
    release(SpinLock);
    sched::current().point("spin lock release");
}

} // extern "C"
