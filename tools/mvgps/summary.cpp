#include "tools/mvgps/summary.h"

#include <fmt/format.h>

#include "tools/ctl/decode.h"

namespace mvgps::tool
{

std::string status_text(std::uint32_t status)
{
    const std::string name = ctl::status_name(status);
    return name.empty() ? fmt::format("0x{:08X}", status) : name;
}

void print(const Summary& s, std::ostream& out)
{
    out << fmt::format("\nsummary\n"
                       "  source       {} at {} bit/s\n"
                       "  run time     {:.1f} s of device time in {:.2f} s of wall time ({})\n"
                       "  frames       {} delivered to client reads\n"
                       "  sentences    {} NMEA, {} of them GGA with a fix\n",
                       s.source, s.rate, s.device_seconds, s.wall_seconds,
                       s.simulated ? "simulated" : "real time", s.counts.frames, s.counts.sentences,
                       s.counts.fixes);
    out << "  losses       "
        << (s.losses
                ? fmt::format("{} NMEA frames the chip sent that no read brought back", *s.losses)
                : std::string("not known (the chip is not ours)"))
        << "\n";
    if (s.counts.cancelled + s.counts.failed > 0) {
        out << fmt::format("  reads ended  {} cancelled, {} failed\n", s.counts.cancelled,
                           s.counts.failed);
    }
    if (s.counts.revivals > 0) {
        out << fmt::format("  revivals     {} power cycles to restart the driver's reading\n",
                           s.counts.revivals);
    }
    if (s.first_fix_seconds) {
        out << fmt::format("  first fix    {:.1f} s after the cold start\n", *s.first_fix_seconds);
    }
    out << fmt::format("  stop         device removed, driver unloaded, {} pool blocks left\n",
                       s.pool_left);
    if (s.simulated) {
        out << fmt::format("  seed         {}   replay: {}\n", s.seed, s.command);
    }
}

nlohmann::json to_json(const Summary& s)
{
    nlohmann::json j = {
        {"scheduler", s.simulated ? "simulated" : "realtime"},
        {"source", s.source},
        {"rate", s.rate},
        {"device_seconds", s.device_seconds},
        {"wall_seconds", s.wall_seconds},
        {"frames", s.counts.frames},
        {"sentences", s.counts.sentences},
        {"fixes", s.counts.fixes},
        {"cancelled_reads", s.counts.cancelled},
        {"failed_reads", s.counts.failed},
        {"revivals", s.counts.revivals},
        {"losses", s.losses ? nlohmann::json(*s.losses) : nlohmann::json()},
        {"first_fix_seconds",
         s.first_fix_seconds ? nlohmann::json(*s.first_fix_seconds) : nlohmann::json()},
        {"pool_left", s.pool_left},
    };
    if (s.simulated) {
        j["seed"] = s.seed;
        j["replay"] = s.command;
    }
    return j;
}

} // namespace mvgps::tool
