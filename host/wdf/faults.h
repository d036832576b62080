// Fault injection for the framework, like the verifier's low-resources simulation: object
// creation and I/O target sends (reads, writes and control calls) can be made to fail by
// rule, so tests walk every failure path. Rules are process-wide until cleared.
#pragma once

#include <wdm.h>

#include <cstdint>
#include <optional>

#include "wdf/object.h"

namespace mvgps::wdf::faults
{

enum class Site : std::uint8_t { Create, Send };
enum class Op : std::uint8_t { Read, Write, Control };

struct Rule {
    enum class When : std::uint8_t { Nth, Every, Random };
    Site site = Site::Create;
    When when = When::Nth;
    std::uint64_t n = 1;          // Nth: the n-th matching call fails (1 = the next one)
    std::uint64_t seed = 0;       // Random: the rule's own generator, so a run replays
    double probability = 0.0;     // Random: chance that a matching call fails
    std::optional<Kind> kind;     // Create: only objects of this kind
    std::optional<Op> op;         // Send: only this kind of send
    std::optional<ULONG> control; // Send: only control calls with this code
    NTSTATUS status = STATUS_INSUFFICIENT_RESOURCES;
};

Rule fail_nth_create(std::uint64_t n, std::optional<Kind> kind = std::nullopt);
Rule fail_nth_send(std::uint64_t n, std::optional<Op> op = std::nullopt,
                   NTSTATUS status = STATUS_UNSUCCESSFUL);
Rule fail_control(ULONG code, NTSTATUS status = STATUS_UNSUCCESSFUL);
Rule fail_random(Site site, std::uint64_t seed, double probability);

void add(const Rule& rule);
void clear();

// The status a call at this site fails with, or STATUS_SUCCESS when no rule fires.
NTSTATUS on_create(Kind kind);
NTSTATUS on_send(Op op, ULONG control_code);

} // namespace mvgps::wdf::faults
