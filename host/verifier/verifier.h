// The host's verifier: a broken rule stops the run with a bug check report that says which
// rule, on which thread, with which seed, and what happened just before.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace mvgps::verifier
{

// Stop codes, with the values and names the real system uses for the same faults.
inline constexpr std::uint32_t kIrqlNotGreaterOrEqual = 0x09;
inline constexpr std::uint32_t kIrqlNotLessOrEqual = 0x0A;
inline constexpr std::uint32_t kSpinLockAlreadyOwned = 0x0F;
inline constexpr std::uint32_t kSpinLockNotOwned = 0x10;
inline constexpr std::uint32_t kReferenceByPointer = 0x18;
inline constexpr std::uint32_t kKmodeExceptionNotHandled = 0x1E;
inline constexpr std::uint32_t kBadPoolHeader = 0x19;
inline constexpr std::uint32_t kInvalidKernelHandle = 0x93;
inline constexpr std::uint32_t kDriverPowerStateFailure = 0x9F;
inline constexpr std::uint32_t kSpecialPoolCorruption = 0xC1;
inline constexpr std::uint32_t kBadPoolCaller = 0xC2;
inline constexpr std::uint32_t kDriverVerifierViolation = 0xC4;
inline constexpr std::uint32_t kDriverUnloadedWithPendingOperations = 0xCE;
inline constexpr std::uint32_t kDriverIrqlNotLessOrEqual = 0xD1;
inline constexpr std::uint32_t kKernelSecurityCheckFailure = 0x139;
inline constexpr std::uint32_t kWdfViolation = 0x10D;

// The name of a stop code ("UNKNOWN_STOP_CODE" for one the host does not know).
std::string_view stop_name(std::uint32_t code);

// Prints the report to stderr and aborts. Safe to call from any thread.
[[noreturn]] void bugcheck(std::uint32_t code, std::string_view rule, std::uint64_t p1 = 0,
                           std::uint64_t p2 = 0, std::uint64_t p3 = 0, std::uint64_t p4 = 0);

// Records a significant event (thread start and end, lock traffic, pool failures) in a ring
// of the most recent ones, which every report ends with. Each entry is stamped with the
// scheduler's time and the calling thread's name.
void note(std::string event);

// The recorded events, oldest first (at most kRecentEvents).
inline constexpr std::size_t kRecentEvents = 32;
std::vector<std::string> recent();
void clear_recent();

// A line about the calling thread that the kernel adds to every report (its IRQL and the
// spin locks it holds); the verifier itself knows nothing of kernel state.
using ThreadContext = std::string (*)();
void set_thread_context(ThreadContext describe);

// The report bugcheck() would print, without stopping (for tests and post-mortem output).
std::string report(std::uint32_t code, std::string_view rule, std::uint64_t p1 = 0,
                   std::uint64_t p2 = 0, std::uint64_t p3 = 0, std::uint64_t p4 = 0);

} // namespace mvgps::verifier
