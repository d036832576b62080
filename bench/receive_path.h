// The driver's receive path as the read thread drives it, for measurements.
#pragma once

#include <cstddef>

#include "nmea_stream.h"

namespace mvgps::bench
{

// Hands every read of the stream to the receive path, in order, and returns the number of
// frames it delivered.
std::size_t receive_stream(const NmeaStream& stream);

} // namespace mvgps::bench
