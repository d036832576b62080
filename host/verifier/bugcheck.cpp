// The bug check: a readable report on stderr, then the end of the run.
#include "verifier/verifier.h"

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>

#include <unistd.h>

#include "sched/sched.h"

namespace mvgps::verifier
{
namespace
{

struct StopName {
    std::uint32_t code;
    std::string_view name;
};

constexpr StopName kStopNames[] = {
    {kIrqlNotGreaterOrEqual, "IRQL_NOT_GREATER_OR_EQUAL"},
    {kIrqlNotLessOrEqual, "IRQL_NOT_LESS_OR_EQUAL"},
    {kSpinLockAlreadyOwned, "SPIN_LOCK_ALREADY_OWNED"},
    {kSpinLockNotOwned, "SPIN_LOCK_NOT_OWNED"},
    {kReferenceByPointer, "REFERENCE_BY_POINTER"},
    {kKmodeExceptionNotHandled, "KMODE_EXCEPTION_NOT_HANDLED"},
    {kBadPoolHeader, "BAD_POOL_HEADER"},
    {kInvalidKernelHandle, "INVALID_KERNEL_HANDLE"},
    {kDriverPowerStateFailure, "DRIVER_POWER_STATE_FAILURE"},
    {kSpecialPoolCorruption, "SPECIAL_POOL_DETECTED_MEMORY_CORRUPTION"},
    {kBadPoolCaller, "BAD_POOL_CALLER"},
    {kDriverVerifierViolation, "DRIVER_VERIFIER_DETECTED_VIOLATION"},
    {kDriverUnloadedWithPendingOperations, "DRIVER_UNLOADED_WITHOUT_CANCELLING_PENDING_OPERATIONS"},
    {kDriverIrqlNotLessOrEqual, "DRIVER_IRQL_NOT_LESS_OR_EQUAL"},
    {kKernelSecurityCheckFailure, "KERNEL_SECURITY_CHECK_FAILURE"},
    {kWdfViolation, "WDF_VIOLATION"},
};

std::atomic<ThreadContext> g_thread_context{nullptr};

void append(std::string& out, const char* format, auto... args)
{
    char line[256];
    std::snprintf(line, sizeof line, format, args...);
    out += line;
}

} // namespace

std::string_view stop_name(std::uint32_t code)
{
    for (const auto& s : kStopNames) {
        if (s.code == code) {
            return s.name;
        }
    }
    return "UNKNOWN_STOP_CODE";
}

void set_thread_context(ThreadContext describe)
{
    g_thread_context.store(describe);
}

std::string report(std::uint32_t code, std::string_view rule, std::uint64_t p1, std::uint64_t p2,
                   std::uint64_t p3, std::uint64_t p4)
{
    std::string out = "\n*** STOP: ";
    append(out,
           "0x%08" PRIX32 " (0x%016" PRIX64 ", 0x%016" PRIX64 ", 0x%016" PRIX64 ", 0x%016" PRIX64
           ")\n",
           code, p1, p2, p3, p4);
    out += "*** ";
    out += stop_name(code);
    out += "\nRule:   ";
    out += rule;
    out += '\n';
    if (sched::installed()) {
        auto& s = sched::current();
        out += "Thread: " + s.name(s.self()) + '\n';
        if (ThreadContext describe = g_thread_context.load()) {
            out += "        " + describe() + '\n';
        }
        append(out, "Time:   %.6f ms\n", static_cast<double>(s.now()) / 1e6);
        if (s.mode() == sched::Mode::Simulated) {
            append(out, "Seed:   %" PRIu64 " (replay with MVGPS_SEED=%" PRIu64 ")\n", s.seed(),
                   s.seed());
        }
    }
    out += "Recent events, oldest first:\n";
    for (const auto& e : recent()) {
        out += "  " + e + '\n';
    }
    return out;
}

void bugcheck(std::uint32_t code, std::string_view rule, std::uint64_t p1, std::uint64_t p2,
              std::uint64_t p3, std::uint64_t p4)
{
    // One report per run: a second thread stopping meanwhile waits for the first to end the
    // process; a fault while reporting (same thread) ends it at once.
    static std::atomic<bool> stopping{false};
    static thread_local bool reporting = false;
    if (reporting) {
        std::abort();
    }
    reporting = true;
    if (stopping.exchange(true)) {
        for (;;) {
            pause();
        }
    }
    std::string text = report(code, rule, p1, p2, p3, p4);
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
    std::abort();
}

} // namespace mvgps::verifier
