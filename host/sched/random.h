// The one source of chance for host and world. A stream is named by its purpose and derived
// from the run's seed, so each user (the scheduler's choices, fault rules, wire noise, chip
// timing) draws from its own sequence: adding draws to one leaves the others as they were,
// and MVGPS_SEED replays every one of them.
#pragma once

#include <cstdint>
#include <string_view>

namespace mvgps::sched
{

class Random
{
  public:
    Random(std::uint64_t seed, std::string_view stream);
    // Derived from the installed scheduler's seed.
    explicit Random(std::string_view stream);

    std::uint64_t next();
    // Uniform in [lo, hi] (inclusive); lo when hi <= lo.
    std::int64_t between(std::int64_t lo, std::int64_t hi);
    // True with probability p (0 never, 1 always).
    bool chance(double p);
    std::uint8_t byte() { return static_cast<std::uint8_t>(next() >> 56); }

  private:
    std::uint64_t s_[4];
};

} // namespace mvgps::sched
