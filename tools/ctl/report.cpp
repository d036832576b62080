#include "tools/ctl/report.h"

#include <algorithm>
#include <cstdio>
#include <optional>
#include <ostream>

#include <nlohmann/json.hpp>

#include "control/control.h"
#include "tools/ctl/decode.h"
#include "tools/ctl/hex.h"

namespace mvgps::ctl
{

namespace
{

using Json = nlohmann::ordered_json;

// What the output of a known code holds.
struct Decoded {
    std::optional<std::uint32_t> download_flag;
    std::optional<std::uint32_t> sleep_status;
    std::optional<ReadHeader> header;
    std::optional<Frame> frame;
    std::optional<std::string> nmea;
};

std::span<const std::uint8_t> returned(const Reply& reply)
{
    std::size_t size = std::min<std::uint64_t>(reply.information, reply.output.size());
    return {reply.output.data(), size};
}

void decode_frame_into(std::span<const std::uint8_t> bytes, Decoded& decoded)
{
    Frame frame;
    if (decode_frame(bytes, frame)) {
        decoded.nmea = nmea_sentence(frame);
        decoded.frame = std::move(frame);
    }
}

Decoded decode(std::uint32_t code, const Reply& reply)
{
    Decoded decoded;
    std::span<const std::uint8_t> bytes = returned(reply);
    if (!status_ok(reply.status) || bytes.empty()) {
        return decoded;
    }
    // The sleep state is a 4-byte value of which the driver reports one byte returned.
    std::span<const std::uint8_t> whole(reply.output.data(),
                                        std::min<std::size_t>(reply.output.size(), 4));
    ReadHeader header;
    switch (code) {
    case IOCTL_VC_GPS_GET_DOWNLOAD_FLAG:
        decoded.download_flag = bytes[0];
        break;
    case IOCTL_VC_GPS_GET_SLEEP_STATUS:
        decoded.sleep_status = little_endian(whole);
        break;
    case IOCTL_VC_GPS_SENDCMD_ACK:
    case IOCTL_VC_SET_LOG_GPS_SENDCMD:
        decode_frame_into(bytes, decoded);
        break;
    case IOCTL_VC_GPS_START_READ:
        if (decode_read_header(bytes, header)) {
            decoded.header = header;
            decode_frame_into(bytes.subspan(GPS_READ_HEADER_SIZE), decoded);
        }
        break;
    default:
        break;
    }
    return decoded;
}

std::string hex32(std::uint32_t value)
{
    char text[11];
    std::snprintf(text, sizeof(text), "0x%08X", value);
    return text;
}

std::string code_name(std::uint32_t code)
{
    const char* name = gps_control_code_name(code);
    return name != nullptr ? name : "";
}

Json frame_json(const Frame& frame)
{
    return Json{{"pid", frame.pid},
                {"sid", frame.sid},
                {"crc", frame.crc},
                {"payload", to_hex(frame.payload)}};
}

void print_json(std::ostream& out, const Request& request, const Reply& reply,
                const Decoded& decoded, std::uint64_t frame)
{
    Json object{{"command", request.command}};
    if (frame != 0) {
        object["frame_number"] = frame;
    }
    object["code"] = request.code;
    object["code_name"] = code_name(request.code);
    object["status"] = reply.status;
    object["status_name"] = status_name(reply.status);
    object["information"] = reply.information;
    object["output"] = to_hex(returned(reply));
    if (decoded.download_flag) {
        object["download_flag"] = *decoded.download_flag;
    }
    if (decoded.sleep_status) {
        object["sleep_status"] = *decoded.sleep_status;
    }
    if (decoded.header) {
        object["header"] = Json{{"type", decoded.header->type}, {"length", decoded.header->length}};
    }
    if (decoded.frame) {
        object["frame"] = frame_json(*decoded.frame);
    }
    if (decoded.nmea) {
        object["nmea"] = *decoded.nmea;
    }
    out << object.dump() << '\n';
}

void print_status(std::ostream& out, const Request& request, const Reply& reply)
{
    std::string code = code_name(request.code);
    std::string status = status_name(reply.status);
    out << (code.empty() ? "code" : code) << " (" << hex32(request.code)
        << "): " << (status.empty() ? "status" : status) << " (" << hex32(reply.status) << "), "
        << reply.information << " bytes returned\n";
}

std::string frame_text(const Decoded& decoded)
{
    const Frame& frame = *decoded.frame;
    char ids[32];
    std::snprintf(ids, sizeof(ids), "pid 0x%02X sid %u", frame.pid, frame.sid);
    if (decoded.nmea) {
        return std::string(ids) + ": " + *decoded.nmea;
    }
    return std::string(ids) + (frame.crc ? ", crc" : "") + ", payload " +
           (frame.payload.empty() ? "none" : to_hex(frame.payload, " "));
}

void print_text(std::ostream& out, const Request& request, const Reply& reply,
                const Decoded& decoded, std::uint64_t frame)
{
    if (frame == 0 || !status_ok(reply.status)) {
        print_status(out, request, reply);
    }
    if (decoded.download_flag) {
        out << "download flag: " << *decoded.download_flag
            << (*decoded.download_flag ? " (no wake-up since load)" : " (woken up since load)")
            << '\n';
    } else if (decoded.sleep_status) {
        out << "sleep status: " << *decoded.sleep_status
            << (*decoded.sleep_status ? " (asleep)" : " (awake)") << '\n';
    } else if (decoded.header) {
        out << "frame";
        if (frame != 0) {
            out << ' ' << frame;
        }
        out << " (type " << unsigned(decoded.header->type) << ", " << decoded.header->length
            << " bytes): " << (decoded.frame ? frame_text(decoded) : "not a chip frame") << '\n';
    } else if (decoded.frame) {
        out << "answer: " << frame_text(decoded) << '\n';
    } else if (!returned(reply).empty()) {
        out << "output: " << to_hex(returned(reply), " ") << '\n';
    }
}

} // namespace

void report(std::ostream& out, bool json, const Request& request, const Reply& reply,
            std::uint64_t frame)
{
    Decoded decoded = decode(request.code, reply);
    if (json) {
        print_json(out, request, reply, decoded, frame);
    } else {
        print_text(out, request, reply, decoded, frame);
    }
    out.flush();
}

} // namespace mvgps::ctl
