// The fix a GGA sentence reports, as the demo's table shows it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace mvgps::tool
{

struct Fix {
    std::string time; // hh:mm:ss as the receiver gave it
    double latitude = 0;
    double longitude = 0;
    double altitude = 0;
    int quality = 0; // 0: no fix
    int satellites = 0;
};

// The fix of a GGA sentence, of any talker; empty for any other sentence.
std::optional<Fix> parse_gga(std::string_view sentence);

} // namespace mvgps::tool
