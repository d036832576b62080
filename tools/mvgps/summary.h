// The one-screen account of a run, as text for a person or as one JSON object.
#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>

#include <nlohmann/json.hpp>

#include "tools/mvgps/session.h"

namespace mvgps::tool
{

struct Summary {
    std::string command; // what replays the run
    bool simulated = true;
    std::uint64_t seed = 0;
    std::string source; // "receiver model", a capture's path or a serial port
    std::uint32_t rate = 0;
    double device_seconds = 0; // scheduler time from start to stop
    double wall_seconds = 0;
    Counts counts;
    std::optional<std::uint64_t> losses;
    std::optional<double> first_fix_seconds; // from the cold start
    std::uint64_t pool_left = 0;             // pool blocks still allocated after unload
};

void print(const Summary& s, std::ostream& out);
nlohmann::json to_json(const Summary& s);

// The name of a status the driver completes requests with, or its value in hex.
std::string status_text(std::uint32_t status);

} // namespace mvgps::tool
