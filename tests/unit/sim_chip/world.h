// A chip on one end of a wire and a test client on the other, in a simulated run seeded
// from MVGPS_SEED (or the clock).
#pragma once

#include <memory>

#include "sched/sched.h"
#include "sim/chip/chip.h"
#include "sim/uart/wire.h"
#include "sim_testkit/client.h"

namespace mvgps::sim::chip
{

inline ChipConfig quiet_config()
{
    ChipConfig c;
    c.nmea_on = false;
    return c;
}

struct World {
    explicit World(ChipConfig config = {}, std::uint32_t client_rate = 921600)
        : install(sched::make_simulated(sched::seed_from_env())), client(wire.a(), client_rate),
          chip(wire.b(), std::move(config))
    {
    }

    sched::Install install;
    uart::Wire wire;
    testkit::Client client;
    Chip chip;
};

inline std::shared_ptr<const Capture> capture(const char* text)
{
    return std::make_shared<const Capture>(Capture::parse(text));
}

} // namespace mvgps::sim::chip
