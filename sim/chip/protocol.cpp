#include "sim/chip/protocol.h"

#include <algorithm>
#include <array>

namespace mvgps::sim::chip
{

namespace
{

Outcome refuse(std::uint32_t err)
{
    Outcome o;
    o.err_status = err;
    return o;
}

Outcome accept()
{
    return Outcome{};
}

// Payload sizes of the assisted-GPS blocks, by sid.
constexpr std::array<std::size_t, 7> kAgpsSize = {28, 48, 24, 24, 28, 36, 36};

// The sid of a memory write gives its width: 1, 2 or 4 bytes, whole aligned words (4), or
// any number of bytes (0).
bool write_width_ok(std::uint8_t sid, std::uint32_t address, std::size_t n)
{
    switch (sid) {
    case 0:
        return n != 0;
    case 1:
        return n == 1;
    case 2:
        return n == 2;
    case 3:
        return n == 4;
    default:
        return n != 0 && n % 4 == 0 && address % 4 == 0;
    }
}

} // namespace

Protocol::Protocol(ByteOrder order, std::vector<std::uint32_t> rates, std::uint8_t geofence_status)
    : order_(order), rates_(std::move(rates)), geofence_status_(geofence_status)
{
}

std::uint32_t Protocol::get_u32(const std::uint8_t* p) const
{
    if (order_ == ByteOrder::Little) {
        return p[0] | p[1] << 8 | p[2] << 16 | static_cast<std::uint32_t>(p[3]) << 24;
    }
    return p[3] | p[2] << 8 | p[1] << 16 | static_cast<std::uint32_t>(p[0]) << 24;
}

std::uint16_t Protocol::get_u16(const std::uint8_t* p) const
{
    return static_cast<std::uint16_t>(order_ == ByteOrder::Little ? p[0] | p[1] << 8
                                                                  : p[1] | p[0] << 8);
}

void Protocol::put_u32(std::vector<std::uint8_t>& out, std::uint32_t v) const
{
    for (int i = 0; i < 4; ++i) {
        const int shift = order_ == ByteOrder::Little ? 8 * i : 24 - 8 * i;
        out.push_back(static_cast<std::uint8_t>(v >> shift));
    }
}

void Protocol::reset()
{
    state_ = ChipState{};
    memory_.clear();
}

Outcome Protocol::execute(const Frame& f)
{
    const auto n = f.payload.size();
    switch (f.pid) {
    case kPidMemRead:
        return f.sid == 0 ? read_memory(f) : refuse(kUnknownCommand);
    case kPidMemWrite:
        return f.sid <= 4 ? write_memory(f) : refuse(kUnknownCommand);
    case kPidAgps:
        return agps(f);
    case kPidRf:
        if (f.sid != 0) {
            return refuse(kUnknownCommand);
        }
        if (n != 4) {
            return refuse(kBadLength);
        }
        {
            const std::uint32_t v = get_u32(f.payload.data());
            state_.rf_registers[static_cast<std::uint8_t>(v)] = v >> 8;
        }
        return accept();
    case kPidBaud: {
        if (f.sid != 0) {
            return refuse(kUnknownCommand);
        }
        if (n != 4) {
            return refuse(kBadLength);
        }
        // The rate travels little-endian whatever the chip's byte order.
        const std::uint32_t rate = f.payload[0] | f.payload[1] << 8 | f.payload[2] << 16 |
                                   static_cast<std::uint32_t>(f.payload[3]) << 24;
        if (std::find(rates_.begin(), rates_.end(), rate) == rates_.end()) {
            return refuse(kBadArgument);
        }
        Outcome o;
        o.new_rate = rate;
        return o;
    }
    case kPidReceiver:
        return receiver(f);
    case kPidOption:
        if (f.sid != kSidOption) {
            return refuse(kUnknownCommand);
        }
        if (n != 1) {
            return refuse(kBadLength);
        }
        state_.option = f.payload[0];
        return accept();
    case kPidGeofence:
        return geofence(f);
    case kPidNmea:
        if (f.sid < 2 || f.sid > 4) {
            return refuse(kUnknownCommand);
        }
        state_.nmea_on = f.sid != 2;
        return accept();
    default:
        return refuse(kUnknownCommand);
    }
}

Outcome Protocol::read_memory(const Frame& f)
{
    if (f.payload.size() != 6) {
        return refuse(kBadLength);
    }
    const std::uint32_t address = get_u32(f.payload.data());
    const std::size_t count = get_u16(f.payload.data() + 4);
    if (count == 0 || count > kMaxRead) {
        return refuse(kBadArgument);
    }
    Outcome o;
    o.data = memory_.read(address, count);
    if (o.data.empty()) {
        return refuse(kBadArgument);
    }
    return o;
}

Outcome Protocol::write_memory(const Frame& f)
{
    if (f.payload.size() < 4) {
        return refuse(kBadLength);
    }
    const std::uint32_t address = get_u32(f.payload.data());
    const auto data = std::span(f.payload).subspan(4);
    if (!write_width_ok(f.sid, address, data.size())) {
        return refuse(kBadLength);
    }
    return memory_.write(address, data) ? accept() : refuse(kBadArgument);
}

Outcome Protocol::agps(const Frame& f)
{
    if (f.sid >= kAgpsSize.size()) {
        return refuse(kUnknownCommand);
    }
    if (f.payload.size() != kAgpsSize[f.sid]) {
        return refuse(kBadLength);
    }
    state_.agps.push_back({f.sid, f.payload});
    return accept();
}

Outcome Protocol::receiver(const Frame& f)
{
    const auto n = f.payload.size();
    switch (f.sid) {
    case kSidColdStart: {
        if (n != 2) {
            return refuse(kBadLength);
        }
        ++state_.cold_starts;
        Outcome o;
        o.restart_playback = true;
        return o;
    }
    case kSidWarmStart:
        if (n != 1) {
            return refuse(kBadLength);
        }
        ++state_.warm_starts;
        return accept();
    case kSidSleep: {
        Outcome o;
        o.sleep = true;
        return o;
    }
    default:
        return refuse(kUnknownCommand);
    }
}

// The answer names the geofence by the first field of the command, little-endian, and gives
// the configured status after it.
Outcome Protocol::geofence(const Frame& f)
{
    if (f.sid > 6) {
        return refuse(kUnknownCommand);
    }
    state_.geofence.push_back(f);
    Outcome o;
    o.data.push_back(f.payload.size() > 0 ? f.payload[0] : 0);
    o.data.push_back(f.payload.size() > 1 ? f.payload[1] : 0);
    o.data.push_back(geofence_status_);
    return o;
}

Frame Protocol::acknowledgement(const Frame& command, const Outcome& o) const
{
    Frame ack;
    ack.pid = command.pid;
    ack.sid = command.sid;
    put_u32(ack.payload, o.err_status);
    ack.payload.insert(ack.payload.end(), o.data.begin(), o.data.end());
    return ack;
}

} // namespace mvgps::sim::chip
