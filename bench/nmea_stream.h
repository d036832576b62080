// A realistic receive stream for measurements: one frame per NMEA sentence of the recorded
// captures, a short status frame now and then, 0xFF padding as the chip's transmit buffers
// carry it, cut into reads of random size up to 2048 bytes from a fixed seed.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace mvgps::bench
{

// The seed of every published figure.
inline constexpr std::uint64_t kStreamSeed = 20240601;

struct NmeaStream {
    std::vector<std::uint8_t> bytes;
    std::vector<std::size_t> reads; // read sizes, in order; they add up to bytes.size()
    std::size_t frames = 0;
};

// Captures come from $MVGPS_NMEA_DIR, else from the directory configured at build time.
// Returns an empty stream (and says why in `error`) when there are none.
NmeaStream make_nmea_stream(std::uint64_t seed, std::string& error);

} // namespace mvgps::bench
