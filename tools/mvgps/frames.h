// What a client read brings back, as the program shows it: the read header and one frame,
// the NMEA sentence a frame may carry, and the fix a GGA sentence reports.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "sim/chip/frame.h"

namespace mvgps::tool
{

// The frame behind the 16-byte header of a completed read; empty when it is not one.
std::optional<sim::chip::Frame> read_frame(std::span<const std::uint8_t> output);

// The sentence a frame's payload holds, without its line ending; empty for other frames.
// NMEA is recognised by its content, whatever pid the chip gave it.
std::optional<std::string> sentence_of(const sim::chip::Frame& frame);

// "GGA" for "$GPGGA,...".
std::string_view sentence_type(std::string_view sentence);

struct Fix {
    std::string time; // hh:mm:ss as the receiver gave it
    double latitude = 0;
    double longitude = 0;
    double altitude = 0;
    int quality = 0; // 0: no fix
    int satellites = 0;
};

// The fix of a GGA sentence; empty for any other sentence.
std::optional<Fix> parse_gga(std::string_view sentence);

} // namespace mvgps::tool
