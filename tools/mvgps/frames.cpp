#include "tools/mvgps/frames.h"

#include "control/control.h"

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

std::optional<sim::chip::Frame> read_frame(std::span<const std::uint8_t> output)
{
    if (output.size() <= GPS_READ_HEADER_SIZE) {
        return std::nullopt;
    }
    std::optional<sim::chip::Frame> frame;
    sim::chip::FrameParser parser;
    parser.feed(output.subspan(GPS_READ_HEADER_SIZE),
                [&](const sim::chip::Frame& f, sim::chip::FrameParser::Verdict v) {
                    if (!frame && v == sim::chip::FrameParser::Verdict::Good) {
                        frame = f;
                    }
                });
    return frame;
}

std::optional<std::string> sentence_of(const sim::chip::Frame& frame)
{
    std::string text(frame.payload.begin(), frame.payload.end());
    if (text.empty() || (text[0] != '$' && text[0] != '!')) {
        return std::nullopt;
    }
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.pop_back();
    }
    return text;
}

std::string_view sentence_type(std::string_view sentence)
{
    const auto comma = sentence.find(',');
    if (comma == std::string_view::npos || comma < 4) {
        return {};
    }
    return sentence.substr(comma - 3, 3);
}

std::optional<Fix> parse_gga(std::string_view sentence)
{
    if (sentence_type(sentence) != "GGA") {
        return std::nullopt;
    }
    const auto f = fields(sentence);
    if (f.size() < 10) {
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
