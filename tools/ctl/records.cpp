#include "tools/ctl/records.h"

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>

#include "control/control.h"
#include "tools/ctl/hex.h"

namespace mvgps::ctl
{

// The frame's length field counts pid, sid, the two length bytes and the payload.
static constexpr std::size_t kFrameHeadLength = 4;
static constexpr std::uint8_t kFrameSync = 0xA5;

template <class Record>
static std::vector<std::uint8_t> bytes_of(const Record& record)
{
    const auto* first = reinterpret_cast<const std::uint8_t*>(&record);
    return {first, first + sizeof(record)};
}

std::vector<std::uint8_t> command_record(std::uint8_t pid, std::uint8_t sid,
                                         const std::vector<std::uint8_t>& payload)
{
    GPS_COMMAND_RECORD header{};
    header.Head = kFrameSync;
    header.TotalLength = static_cast<std::uint8_t>((kFrameHeadLength + payload.size()) & 0x7F);
    header.Pid = pid;
    header.Sid = sid;
    header.LengthHigh = static_cast<std::uint8_t>(payload.size() >> 8);
    header.LengthLow = static_cast<std::uint8_t>(payload.size());
    std::vector<std::uint8_t> record(sizeof(header) + payload.size());
    std::memcpy(record.data(), &header, sizeof(header));
    std::copy(payload.begin(), payload.end(), record.begin() + sizeof(header));
    return record;
}

std::vector<std::uint8_t> geofence_record(const Options& options)
{
    GPS_GEOFENCE_RECORD record{};
    record.AnswerId = static_cast<std::uint16_t>(options.answer_id);
    record.Pid = static_cast<std::uint8_t>(options.pid);
    record.Sid = static_cast<std::uint8_t>(options.sid);
    record.Length = static_cast<std::uint16_t>(options.length);
    record.Field1 = static_cast<std::uint16_t>(options.fields[0]);
    record.Field2 = options.fields[1];
    record.Field3 = options.fields[2];
    record.Field4 = options.fields[3];
    record.Field5 = static_cast<std::uint8_t>(options.fields[4]);
    record.Field6 = options.fields[5];
    record.Field7 = options.fields[6];
    record.Field8 = options.fields[7];
    record.Field9 = options.fields[8];
    return bytes_of(record);
}

std::vector<std::uint8_t> geofence_cmd_record(const Options& options,
                                              const std::vector<std::uint8_t>& payload)
{
    GPS_GEOFENCE_CMD_RECORD record{};
    record.AnswerId = static_cast<std::uint16_t>(options.answer_id);
    record.Pid = static_cast<std::uint8_t>(options.pid);
    record.Sid = static_cast<std::uint8_t>(options.sid);
    record.Length = static_cast<std::uint16_t>(options.cmd_length);
    std::copy_n(payload.begin(), std::min(payload.size(), sizeof(record.Payload)), record.Payload);
    return bytes_of(record);
}

bool parse_code(std::string_view text, std::uint32_t& code)
{
    for (const gps_control_code& known : gps_control_codes) {
        if (text == known.name) {
            code = known.code;
            return true;
        }
    }
    if (text.starts_with("0x") || text.starts_with("0X")) {
        text.remove_prefix(2);
    }
    std::vector<std::uint8_t> bytes;
    std::string padded = (text.size() % 2 ? "0" : "") + std::string(text);
    if (text.empty() || text.size() > 8 || text.find(' ') != text.npos ||
        !parse_hex(padded, bytes)) {
        return false;
    }
    code = 0;
    for (std::uint8_t byte : bytes) {
        code = code << 8 | byte;
    }
    return true;
}

bool read_agps_record(const std::string& path, std::vector<std::uint8_t>& record,
                      std::string& error)
{
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        error = path + ": cannot be opened";
        return false;
    }
    record.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    if (record.size() != sizeof(GPS_AGPS_RECORD)) {
        error = path + ": holds " + std::to_string(record.size()) +
                " bytes, an assistance record " + std::to_string(sizeof(GPS_AGPS_RECORD));
        return false;
    }
    return true;
}

} // namespace mvgps::ctl
