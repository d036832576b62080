// What the driver's replies mean: status names, the status reads, the chip frames that
// raw commands and reads return.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace mvgps::ctl
{

// The status's NTSTATUS name, or an empty string for one the driver does not return.
std::string status_name(std::uint32_t status);
// NT_SUCCESS: success and informational statuses.
constexpr bool status_ok(std::uint32_t status)
{
    return static_cast<std::int32_t>(status) >= 0;
}

// One chip frame (sync, length, pid, sid, optional payload and CRC, tail).
struct Frame {
    std::uint8_t pid = 0;
    std::uint8_t sid = 0;
    bool crc = false;
    std::vector<std::uint8_t> payload;
};
// False when the bytes do not hold a whole frame from their first byte on.
bool decode_frame(std::span<const std::uint8_t> bytes, Frame& frame);
// The sentence without its line end, when the payload is one NMEA sentence.
std::optional<std::string> nmea_sentence(const Frame& frame);

// The header a completed read starts with.
struct ReadHeader {
    std::uint8_t type = 0;
    std::uint32_t length = 0; // of the frame that follows
};
// False when the bytes are shorter than the header.
bool decode_read_header(std::span<const std::uint8_t> bytes, ReadHeader& header);

// Little-endian value of up to four bytes; missing bytes count as zero.
std::uint32_t little_endian(std::span<const std::uint8_t> bytes);

} // namespace mvgps::ctl
