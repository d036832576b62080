// The framework's calls in the low-resources simulation: object creation and I/O target
// sends (reads, writes and control calls) fail by rule, on the verifier's one engine.
#pragma once

#include <wdm.h>

#include <cstdint>
#include <optional>

#include "host/verifier/faults.h"
#include "host/wdf/object.h"

namespace mvgps::wdf::faults
{

using verifier::Site;
using Rule = verifier::FaultRule;
enum class Op : std::uint8_t { Read, Write, Control };

Rule fail_nth_create(std::uint64_t n, std::optional<Kind> kind = std::nullopt);
Rule fail_nth_send(std::uint64_t n, std::optional<Op> op = std::nullopt,
                   NTSTATUS status = STATUS_UNSUCCESSFUL);
Rule fail_control(ULONG code, NTSTATUS status = STATUS_UNSUCCESSFUL);
Rule fail_random(Site site, std::uint64_t seed, double probability);

inline void add(const Rule& rule)
{
    verifier::add_fault(rule);
}
// Clears every armed rule, the pool's too.
inline void clear()
{
    verifier::clear_faults();
}

// The status a call at this site fails with, or STATUS_SUCCESS when no rule fires.
NTSTATUS on_create(Kind kind);
NTSTATUS on_send(Op op, ULONG control_code);

} // namespace mvgps::wdf::faults
