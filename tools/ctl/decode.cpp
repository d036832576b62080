#include "tools/ctl/decode.h"

#include <algorithm>

#include "control/control.h"

namespace mvgps::ctl
{

namespace
{

struct StatusName {
    std::uint32_t status;
    const char* name;
};

// Every status the driver and the framework under it complete a control request with.
constexpr StatusName kStatusNames[] = {
    {0x00000000, "STATUS_SUCCESS"},
    {0x00000102, "STATUS_TIMEOUT"},
    {0x00000103, "STATUS_PENDING"},
    {0x80000005, "STATUS_BUFFER_OVERFLOW"},
    {0xC0000001, "STATUS_UNSUCCESSFUL"},
    {0xC000000D, "STATUS_INVALID_PARAMETER"},
    {0xC000000E, "STATUS_NO_SUCH_DEVICE"},
    {0xC0000010, "STATUS_INVALID_DEVICE_REQUEST"},
    {0xC0000023, "STATUS_BUFFER_TOO_SMALL"},
    {0xC0000056, "STATUS_DELETE_PENDING"},
    {0xC000009A, "STATUS_INSUFFICIENT_RESOURCES"},
    {0xC00000A3, "STATUS_DEVICE_NOT_READY"},
    {0xC00000B5, "STATUS_IO_TIMEOUT"},
    {0xC00000BB, "STATUS_NOT_SUPPORTED"},
    {0xC0000120, "STATUS_CANCELLED"},
    {0xC0000184, "STATUS_INVALID_DEVICE_STATE"},
    {0xC00002B6, "STATUS_DEVICE_REMOVED"},
    {0xC0000225, "STATUS_NOT_FOUND"},
};

// A Win32 error that has no NTSTATUS of its own travels as 0xC007xxxx.
constexpr std::uint32_t kWin32Facility = 0xC0070000;

constexpr std::uint8_t kSync = 0xA5;
constexpr std::uint8_t kCrcPresent = 0x80;
constexpr std::size_t kIdsLength = 2; // pid and sid, counted by the length field
constexpr std::size_t kCrcSize = 2;
constexpr std::size_t kHeadSize = 3; // sync and the two length bytes

} // namespace

std::string status_name(std::uint32_t status)
{
    for (const StatusName& entry : kStatusNames) {
        if (entry.status == status) {
            return entry.name;
        }
    }
    if ((status & 0xFFFF0000) == kWin32Facility) {
        return "Win32 error " + std::to_string(status & 0xFFFF);
    }
    return {};
}

bool decode_frame(std::span<const std::uint8_t> bytes, Frame& frame)
{
    if (bytes.size() < kHeadSize + kIdsLength + 1 || bytes[0] != kSync) {
        return false;
    }
    std::size_t length = static_cast<std::size_t>(bytes[1] & 0x0F) << 8 | bytes[2];
    frame.crc = (bytes[1] & kCrcPresent) != 0;
    std::size_t tail = kHeadSize + length + (frame.crc ? kCrcSize : 0);
    if (length < kIdsLength || tail >= bytes.size() || bytes[tail] != kSync) {
        return false;
    }
    frame.pid = bytes[3];
    frame.sid = bytes[4];
    // The two payload length bytes come first; the length field is what bounds the payload.
    std::size_t payload = GPS_COMMAND_PAYLOAD_OFFSET;
    std::size_t end = kHeadSize + length;
    frame.payload.assign(bytes.begin() + std::min(payload, end), bytes.begin() + end);
    return true;
}

std::optional<std::string> nmea_sentence(const Frame& frame)
{
    const std::vector<std::uint8_t>& p = frame.payload;
    if (p.empty() || (p[0] != '$' && p[0] != '!')) {
        return std::nullopt;
    }
    std::string text(p.begin(), p.end());
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) {
        text.pop_back();
    }
    bool printable =
        std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
    if (!printable) {
        return std::nullopt;
    }
    return text;
}

bool decode_read_header(std::span<const std::uint8_t> bytes, ReadHeader& header)
{
    if (bytes.size() < GPS_READ_HEADER_SIZE) {
        return false;
    }
    header.type = bytes[0];
    header.length = little_endian(bytes.subspan(4, 4));
    return true;
}

std::uint32_t little_endian(std::span<const std::uint8_t> bytes)
{
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < bytes.size() && i < 4; i++) {
        value |= static_cast<std::uint32_t>(bytes[i]) << (8 * i);
    }
    return value;
}

} // namespace mvgps::ctl
