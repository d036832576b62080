// The host side of the kernel services: what tests, the framework and the PnP manager see
// of the pool, the debug output, the interface registry and the calling thread's state.
#pragma once

#include <wdm.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/sched/sched.h"
#include "host/verifier/faults.h"

namespace mvgps::kernel
{

// ---- The calling thread ------------------------------------------------------------------
KIRQL current_irql();
// Spin locks the calling thread holds right now.
std::size_t spin_locks_held();

// System threads still running whose start routine lies in the image loaded at `image_base`.
std::vector<std::string> threads_running_in(const void* image_base);

// ---- Timeouts -----------------------------------------------------------------------------
// A kernel or framework timeout as a scheduler deadline: null waits without limit, a
// negative value is relative and a positive one absolute system time, both in 100-ns units;
// zero only tries. Every wait and send in the host converts its timeout here.
sched::Nanos deadline_from(const LONGLONG* timeout);

// ---- Pool ----------------------------------------------------------------------------------
struct TagStats {
    ULONG tag = 0;
    std::uint64_t live_blocks = 0;
    std::uint64_t live_bytes = 0;
    std::uint64_t allocations = 0; // successful, since the process started
    std::uint64_t frees = 0;
    std::uint64_t failures = 0; // injected allocation failures
};
// Per tag, ordered by tag value; tags never used do not appear.
std::vector<TagStats> pool_stats();
TagStats pool_stats(ULONG tag);

struct LeakedBlock {
    const void* address;
    std::size_t size;
    std::uint64_t serial; // allocation order across the whole pool
};
struct TagLeak {
    ULONG tag;
    std::size_t bytes;
    std::vector<LeakedBlock> blocks; // oldest first
};
struct LeakReport {
    std::vector<TagLeak> tags; // ordered by tag value
    std::string text;          // one line per tag, then one per block; empty when clean
    bool empty() const { return tags.empty(); }
};
// Blocks still allocated under the given tags (every tag when none is given).
LeakReport leak_report(std::span<const ULONG> tags = {});

// "'SHBS' (0x53424853)": a tag as pool viewers show it (bytes in memory order).
std::string tag_text(ULONG tag);

// Allocation failures from the low-resources simulation. A rule with tag 0 applies to every
// allocation; otherwise only to allocations with that tag.
using PoolFault = verifier::FaultRule;
PoolFault fail_nth(std::uint64_t n, ULONG tag = 0);
PoolFault fail_every(ULONG tag);
PoolFault fail_random(std::uint64_t seed, double probability, ULONG tag = 0);
inline void add_pool_fault(const PoolFault& rule)
{
    verifier::add_fault(rule);
}
// Clears every armed rule, the framework's too.
inline void clear_pool_faults()
{
    verifier::clear_faults();
}

// ---- Debug output --------------------------------------------------------------------------
// Everything DbgPrint and DbgPrintEx produced since the last clear (the most recent few
// megabytes). Also written to stderr when MVGPS_DEBUG=1.
std::string debug_output();
void clear_debug_output();

// ---- Event tracing -------------------------------------------------------------------------
// A trace session for one provider: while it is on, the provider's EtwWriteString events are
// recorded (the most recent few thousand) and EtwProviderEnabled answers TRUE.
struct TraceEvent {
    GUID provider;
    UCHAR level;
    ULONGLONG keyword;
    std::string text; // the string as written, narrowed
};
void enable_trace(const GUID& provider, bool on);
std::vector<TraceEvent> trace_events();
void clear_trace_events();
// Providers registered and not yet unregistered.
std::size_t registered_providers();

// ---- Device interfaces ---------------------------------------------------------------------
// Symbolic links registered under an interface class, in registration order; this is what
// IoGetDeviceInterfaces returns. Registering a link twice keeps one entry.
void register_interface(const GUID& interface_class, std::u16string_view link);
// Returns false when the link was not registered.
bool unregister_interface(const GUID& interface_class, std::u16string_view link);
std::vector<std::u16string> interfaces(const GUID& interface_class);

} // namespace mvgps::kernel
