// A chip on one end of a wire and a test client on the other, in a simulated run seeded
// from MVGPS_SEED (or the clock).
#pragma once

#include <algorithm>
#include <memory>

#include "host/sched/sched.h"
#include "sim/chip/chip.h"
#include "sim/uart/wire.h"
#include "sim/testkit/client.h"

namespace mvgps::sim::chip
{

using testkit::Bytes;
using testkit::cat;
using testkit::le32;
using testkit::run_for;
constexpr sched::Nanos kMs = sched::kMillisecond;

inline ChipConfig quiet_config()
{
    ChipConfig c;
    c.nmea_on = false;
    return c;
}

inline ChipConfig playing(const char* capture)
{
    ChipConfig c;
    c.capture = std::make_shared<const Capture>(Capture::parse(capture));
    return c;
}

struct World {
    explicit World(ChipConfig config = quiet_config())
        : install(sched::make_simulated(sched::seed_from_env())), client(wire.a(), 921600),
          chip(wire.b(), std::move(config))
    {
    }

    // The good frames with this pid that the client has received.
    std::vector<testkit::Received> received(std::uint8_t pid) const
    {
        auto all = client.received();
        std::erase_if(all, [&](const auto& r) {
            return r.frame.pid != pid || r.verdict != FrameParser::Verdict::Good;
        });
        return all;
    }

    sched::Install install;
    uart::Wire wire;
    testkit::Client client;
    Chip chip;
};

// `v` in `n` bytes in the given order.
inline Bytes num(std::uint32_t v, int n, ByteOrder order = ByteOrder::Little)
{
    Bytes b;
    for (int i = 0; i < n; ++i) {
        b.push_back(static_cast<std::uint8_t>(v >> (8 * i)));
    }
    if (order == ByteOrder::Big) {
        std::reverse(b.begin(), b.end());
    }
    return b;
}

inline std::uint32_t get_le32(std::span<const std::uint8_t> p)
{
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

} // namespace mvgps::sim::chip
