// The framework rules the host's verifier enforces. Each broken rule stops the run with a
// WDF_VIOLATION (0x10D) bug check whose first parameter says which rule, except a device
// that cannot leave D0, which is the power-state failure (0x9F) the real system reports.
#pragma once

#include <wdm.h>

#include <cstdint>
#include <string>

namespace mvgps::wdf
{

enum class Rule : std::uint64_t {
    DoubleCompletion = 1,
    RequestNotOwned = 2,
    DeletedObject = 3,
    CallbackIrql = 4,
    CallbackSpinLock = 5,
    RequestLeaked = 6,
    WaitLockIrql = 7,
    BadHandle = 8,
    SyncSendIrql = 9,
    DeleteNotAllowed = 10,
    WaitLockNotOwned = 11,
    CompletedCancelable = 12,
    InformationTooLarge = 13,
    RequestInFlight = 14,
};

[[noreturn]] void violation(Rule rule, const std::string& what, std::uint64_t p2 = 0,
                            std::uint64_t p3 = 0, std::uint64_t p4 = 0);
[[noreturn]] void power_failure(const std::string& what, std::uint64_t p2 = 0);
// Adds an event to the verifier's ring of recent events.
void note(const std::string& event);

// Calls a driver callback and checks that it returns at the IRQL it was called at, holding
// no spin lock it did not hold before.
class CallbackCheck
{
  public:
    explicit CallbackCheck(const char* name);
    ~CallbackCheck();
    CallbackCheck(const CallbackCheck&) = delete;
    CallbackCheck& operator=(const CallbackCheck&) = delete;

  private:
    const char* name_;
    KIRQL irql_;
    std::size_t spin_locks_;
};

template <class Fn, class... Args>
auto call_driver(const char* name, Fn fn, Args... args)
{
    CallbackCheck check(name);
    return fn(args...);
}

} // namespace mvgps::wdf
