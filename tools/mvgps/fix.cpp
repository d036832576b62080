#include "tools/mvgps/fix.h"

#include <cstdlib>
#include <vector>

namespace mvgps::tool
{

namespace
{

std::vector<std::string_view> fields(std::string_view sentence)
{
    if (const auto star = sentence.find('*'); star != std::string_view::npos) {
        sentence = sentence.substr(0, star);
    }
    std::vector<std::string_view> out;
    for (std::size_t at = 0;;) {
        const auto comma = sentence.find(',', at);
        out.push_back(sentence.substr(at, comma - at));
        if (comma == std::string_view::npos) {
            return out;
        }
        at = comma + 1;
    }
}

double number(std::string_view text)
{
    return std::strtod(std::string(text).c_str(), nullptr);
}

// ddmm.mmmm (or dddmm.mmmm) and a hemisphere, as signed degrees.
double degrees(std::string_view value, std::string_view hemisphere)
{
    const double raw = number(value);
    const double whole = static_cast<int>(raw / 100);
    const double deg = whole + (raw - whole * 100) / 60;
    return hemisphere == "S" || hemisphere == "W" ? -deg : deg;
}

} // namespace

std::optional<Fix> parse_gga(std::string_view sentence)
{
    const auto f = fields(sentence);
    if (f.size() < 10 || f[0].size() < 6 || !f[0].ends_with("GGA")) {
        return std::nullopt;
    }
    Fix fix;
    if (f[1].size() >= 6) {
        fix.time = std::string(f[1].substr(0, 2)) + ":" + std::string(f[1].substr(2, 2)) + ":" +
                   std::string(f[1].substr(4, 2));
    }
    fix.quality = static_cast<int>(number(f[6]));
    fix.satellites = static_cast<int>(number(f[7]));
    if (fix.quality > 0) {
        fix.latitude = degrees(f[2], f[3]);
        fix.longitude = degrees(f[4], f[5]);
        fix.altitude = number(f[9]);
    }
    return fix;
}

} // namespace mvgps::tool
