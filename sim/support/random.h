// Deterministic pseudo-random numbers for the simulated world. Every stream is derived from
// the scheduler's seed and a stream name, so each component draws from its own sequence and
// a run replays exactly from MVGPS_SEED.
#pragma once

#include <cstdint>
#include <string_view>

namespace mvgps::sim
{

class Random
{
  public:
    Random(std::uint64_t seed, std::string_view stream);
    // Seeded from the installed scheduler.
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

} // namespace mvgps::sim
