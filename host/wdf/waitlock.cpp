// Wait locks: passive-level mutexes that may be held across waits. Acquiring and releasing
// are scheduling points.
#include <string>

#include "host/kernel/kernel.h"
#include "host/sched/sched.h"
#include "host/wdf/object.h"
#include "host/wdf/rules.h"

namespace mvgps::wdf
{
namespace
{

class WaitLock final : public Object
{
  public:
    WaitLock() : Object(Kind::WaitLock) {}
    sched::Thread* owner = nullptr;
    sched::WaitList waiters;
};

} // namespace
} // namespace mvgps::wdf

using namespace mvgps;
using namespace mvgps::wdf;

extern "C" {

NTSTATUS WdfWaitLockCreate(PWDF_OBJECT_ATTRIBUTES LockAttributes, WDFWAITLOCK* Lock)
{
    if (!Lock) {
        return STATUS_INVALID_PARAMETER;
    }
    *Lock = nullptr;
    auto lock = std::make_shared<WaitLock>();
    NTSTATUS status = Objects::attach(lock, LockAttributes, nullptr);
    if (NT_SUCCESS(status)) {
        *Lock = static_cast<WDFWAITLOCK>(lock->handle());
    }
    return status;
}

NTSTATUS WdfWaitLockAcquire(WDFWAITLOCK Lock, PLONGLONG Timeout)
{
    auto* lock = Objects::get<WaitLock>(Lock, Kind::WaitLock, "WdfWaitLockAcquire");
    KIRQL irql = kernel::current_irql();
    bool only_trying = Timeout && *Timeout == 0;
    if (irql > APC_LEVEL && !only_trying) {
        violation(Rule::WaitLockIrql,
                  "wait lock taken above APC_LEVEL (IRQL " + std::to_string(irql) + ")", irql);
    }
    auto& s = sched::current();
    sched::Nanos deadline = kernel::deadline_from(Timeout);
    sched::Thread* me = s.self();
    sched::WaitResult result;
    {
        sched::StateLock state(s);
        result = s.wait(lock->waiters, "wait lock", deadline, [&] {
            if (lock->owner) {
                return false;
            }
            lock->owner = me;
            return true;
        });
    }
    if (result == sched::WaitResult::TimedOut) {
        return STATUS_TIMEOUT;
    }
    s.point("wait lock acquire");
    return STATUS_SUCCESS;
}

VOID WdfWaitLockRelease(WDFWAITLOCK Lock)
{
    auto* lock = Objects::get<WaitLock>(Lock, Kind::WaitLock, "WdfWaitLockRelease");
    auto& s = sched::current();
    bool owned;
    {
        sched::StateLock state(s);
        owned = lock->owner == s.self();
        if (owned) {
            lock->owner = nullptr;
            s.wake(lock->waiters);
        }
    }
    if (!owned) {
        violation(Rule::WaitLockNotOwned, "wait lock released by a thread that does not hold it",
                  reinterpret_cast<std::uintptr_t>(Lock));
    }
    s.point("wait lock release");
}

} // extern "C"
