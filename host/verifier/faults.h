// Fault injection, as the verifier's low-resources simulation does it: pool allocations,
// framework object creation and I/O target sends (reads, writes, serial control calls) fail
// by rule, so that tests walk every failure path. One engine serves every site: the layers
// above describe each call by what it is (a pool tag, an object kind, a send operation) and a
// code (a control code), and give their rules names of their own. Rules stay armed,
// process-wide, until cleared. A random rule draws from a stream of the run's seed (seed 0
// without a scheduler), so MVGPS_SEED replays its failures with everything else.
#pragma once

#include <cstdint>
#include <optional>

namespace mvgps::verifier
{

enum class Site : std::uint8_t { Pool, Create, Send };

struct FaultRule {
    enum class When : std::uint8_t { Nth, Every, Random };
    Site site = Site::Pool;
    When when = When::Nth;
    std::uint64_t n = 1;               // Nth: the n-th matching call fails (1 = the next one)
    std::uint64_t seed = 0;            // Random: names the rule's stream of the run's seed
    double probability = 0.0;          // Random: chance that a matching call fails
    std::optional<std::uint32_t> what; // only calls of this kind
    std::optional<std::uint32_t> code; // only calls with this code
    std::int32_t status = 0;           // what the failing call returns
};

void add_fault(const FaultRule& rule);
void clear_faults();
// How many calls the armed rules have failed since they were last cleared: a walk that
// fails the n-th call knows it has passed the last call when this stays 0.
std::uint64_t faults_fired();

// Every armed rule that matches the call counts it, so that rules do not shift each other's
// counts; the first one that fires gives the status. Zero when none fires.
std::int32_t inject(Site site, std::uint32_t what, std::uint32_t code = 0);

} // namespace mvgps::verifier
