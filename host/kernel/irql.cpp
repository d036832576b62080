// IRQL: a per-thread level that spin locks raise and the verifier checks.
#include "kernel/internal.h"
#include "kernel/kernel.h"

#include <cstdio>
#include <string>

#include "verifier/verifier.h"

namespace mvgps::kernel
{
namespace detail
{

ThreadState& this_thread()
{
    static thread_local ThreadState state;
    return state;
}

const char* irql_name(KIRQL irql)
{
    switch (irql) {
    case PASSIVE_LEVEL:
        return "PASSIVE_LEVEL";
    case APC_LEVEL:
        return "APC_LEVEL";
    case DISPATCH_LEVEL:
        return "DISPATCH_LEVEL";
    default:
        return "a device IRQL";
    }
}

void raise_irql(KIRQL level, const char* caller)
{
    ThreadState& t = this_thread();
    if (level < t.irql) {
        verifier::bugcheck(verifier::kIrqlNotGreaterOrEqual,
                           std::string(caller) + " raises IRQL from " + irql_name(t.irql) +
                               " to the lower " + irql_name(level),
                           t.irql, level);
    }
    t.irql = level;
}

void lower_irql(KIRQL level, const char* caller)
{
    ThreadState& t = this_thread();
    if (level > t.irql) {
        verifier::bugcheck(verifier::kDriverVerifierViolation,
                           std::string(caller) + " lowers IRQL from " + irql_name(t.irql) +
                               " to the higher " + irql_name(level),
                           t.irql, level);
    }
    if (level < DISPATCH_LEVEL && !t.held.empty()) {
        verifier::bugcheck(verifier::kDriverVerifierViolation,
                           std::string(caller) + " lowers IRQL to " + irql_name(level) +
                               " while the thread still holds a spin lock",
                           reinterpret_cast<ULONG_PTR>(t.held.back()), level);
    }
    t.irql = level;
}

namespace
{

std::string describe_thread()
{
    const ThreadState& t = this_thread();
    return std::string("at ") + irql_name(t.irql) + ", holding " + std::to_string(t.held.size()) +
           " spin lock(s)";
}

// Every bug check report says at which IRQL the stopping thread ran.
[[maybe_unused]] const bool g_described = (verifier::set_thread_context(describe_thread), true);

} // namespace
} // namespace detail

KIRQL current_irql()
{
    return detail::this_thread().irql;
}

std::size_t spin_locks_held()
{
    return detail::this_thread().held.size();
}

} // namespace mvgps::kernel

using namespace mvgps;
using namespace mvgps::kernel::detail;

extern "C" {

KIRQL KeGetCurrentIrql(VOID)
{
    return this_thread().irql;
}

VOID KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql)
{
    *OldIrql = this_thread().irql;
    raise_irql(NewIrql, "KeRaiseIrql");
}

VOID KeLowerIrql(KIRQL NewIrql)
{
    lower_irql(NewIrql, "KeLowerIrql");
}

KIRQL KeRaiseIrqlToDpcLevel(VOID)
{
    KIRQL old = this_thread().irql;
    raise_irql(DISPATCH_LEVEL, "KeRaiseIrqlToDpcLevel");
    return old;
}

VOID mvgps_PagedCode(PCSTR Function)
{
    KIRQL irql = this_thread().irql;
    if (irql > APC_LEVEL) {
        verifier::bugcheck(verifier::kDriverIrqlNotLessOrEqual,
                           std::string("pageable code ") + Function + " runs at " + irql_name(irql),
                           irql);
    }
}

VOID mvgps_AssertionFailure(PCSTR Expression, PCSTR File, ULONG Line)
{
    std::string where = File;
    where = where.substr(where.find_last_of('/') + 1);
    verifier::bugcheck(verifier::kKmodeExceptionNotHandled,
                       std::string("assertion failed: ") + Expression + " (" + where + ":" +
                           std::to_string(Line) + ")",
                       static_cast<ULONG>(STATUS_ASSERTION_FAILURE));
}

VOID KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR P1, ULONG_PTR P2, ULONG_PTR P3, ULONG_PTR P4)
{
    verifier::bugcheck(BugCheckCode, "the driver called KeBugCheckEx", P1, P2, P3, P4);
}

VOID __fastfail(ULONG Code)
{
    char rule[64];
    std::snprintf(rule, sizeof rule, "__fastfail(%u)%s", Code,
                  Code == FAST_FAIL_CORRUPT_LIST_ENTRY ? ": corrupt list entry" : "");
    verifier::bugcheck(verifier::kKernelSecurityCheckFailure, rule, Code);
}

} // extern "C"
