// The chip's receiver model: what a GPS receiver reports once a second, as NMEA sentences.
//
// A position moves at a steady speed along a closed route of waypoints; a constellation of
// satellites, drawn once from the chip's seed, drifts slowly across the sky, each with an
// elevation, an azimuth and a signal level that follows its elevation with a little noise.
// Each epoch is GGA, GSA, the GSV sentences (four satellites each), RMC and VTG, talker GP,
// each with its checksum.
//
// The fix follows the starts the chip is told about:
//   - power-on and reset: a fix after `ttff_power_on` (0: the receiver kept what it knew);
//   - cold start: fix and satellites are dropped; satellites are heard again (listed without
//     a signal level) halfway to the fix, which comes `ttff_cold` after the start;
//   - warm start: the fix is dropped, the satellites stay listed, the fix comes `ttff_warm`
//     after the start;
//   - assistance (a time and position block): a start that follows it, or a search under
//     way when it arrives, has its fix at most `ttff_assisted` later. A start consumes it.
// Each time to first fix varies by up to `ttff_jitter` either way, drawn from the seed.
// Without a fix GGA reports quality 0, GSA mode 1, RMC status V and VTG mode N, with empty
// position fields; with one GGA reports quality 1 and the satellites in use (elevation of
// 10 degrees or more).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sched/sched.h"
#include "sim/support/random.h"

namespace mvgps::sim::chip
{

struct Waypoint {
    double latitude = 0;  // degrees, north positive
    double longitude = 0; // degrees, east positive
};

struct ReceiverConfig {
    sched::Nanos ttff_power_on = 0;
    sched::Nanos ttff_cold = 35 * sched::kSecond;
    sched::Nanos ttff_warm = 12 * sched::kSecond;
    sched::Nanos ttff_assisted = 5 * sched::kSecond;
    sched::Nanos ttff_jitter = 2 * sched::kSecond;
    double speed = 12.5;     // m/s along the route
    double altitude = 520.0; // m above the geoid
    int satellites = 10;
    std::int64_t utc_start = 1'780'000'000; // seconds since 1970 at the chip's first epoch
    // A loop of a few kilometres; the last waypoint leads back to the first.
    std::vector<Waypoint> route = {
        {48.1173, 11.5167}, {48.1265, 11.5312}, {48.1350, 11.5240}, {48.1290, 11.5050}};
};

enum class Start { Cold, Warm };

// One satellite as an epoch reports it.
struct SkyView {
    int prn = 0;
    int elevation = 0; // degrees
    int azimuth = 0;   // degrees from true north
    int snr = 0;       // dB-Hz; 0 while not tracked
};

// Where the receiver is, and where it heads.
struct Place {
    double latitude = 0;
    double longitude = 0;
    double course = 0; // degrees from true north
};

class ReceiverModel
{
  public:
    ReceiverModel(ReceiverConfig config, sched::Nanos now);

    void power_on(sched::Nanos now);
    void start(Start kind, sched::Nanos now);
    void assist(sched::Nanos now);
    bool has_fix(sched::Nanos now) const { return now >= fix_at_; }
    // The sentences of the epoch at `now`, without line endings.
    std::vector<std::string> epoch(sched::Nanos now);

  private:
    struct Satellite {
        int prn = 0;
        double elevation = 0; // degrees at the first epoch
        double azimuth = 0;
        double phase = 0;
    };
    void search(sched::Nanos now, sched::Nanos ttff, bool keep_satellites);
    Place place(sched::Nanos now) const;
    std::vector<SkyView> sky(sched::Nanos now);

    ReceiverConfig config_;
    Random random_;
    sched::Nanos origin_;
    sched::Nanos fix_at_ = 0;
    sched::Nanos sky_at_ = 0; // satellites are heard from this time on
    bool assisted_ = false;
    std::vector<Satellite> constellation_;
};

} // namespace mvgps::sim::chip
