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

Protocol::Protocol(ByteOrder order, std::vector<std::uint32_t> rates, std::size_t geofence_capacity)
    : order_(order), rates_(std::move(rates)), geofences_(geofence_capacity)
{
    memory_.set_read_only(kRevision, 1);
    power_on_memory();
}

void Protocol::power_on_memory()
{
    const std::pair<std::uint32_t, std::uint8_t> values[] = {
        {kGuardRegister, kGuardValue}, {kControlByte, kControlPowerOn},
        {kRevision, kRevisionValue},   {kDownloadWord, 1},
        {kColdStartWord, 1},
    };
    for (auto [address, value] : values) {
        memory_.load(address, std::span(&value, 1));
    }
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
    geofences_.clear();
    memory_.clear();
    power_on_memory();
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
        return nmea(f);
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
    Assistance& a = state_.agps;
    if (f.sid == 0) {
        a = Assistance{f.payload, {}};
        Outcome o;
        o.assisted = true;
        return o;
    }
    // A type 1 block opens a slot, unless it repeats the one that opened the current slot.
    const bool repeat = !a.slots.empty() && a.slots.back().blocks.size() == 1 &&
                        a.slots.back().blocks.begin()->second == f.payload;
    if (f.sid == 1 && !repeat) {
        a.slots.emplace_back();
    }
    if (a.slots.empty()) {
        return refuse(kBadArgument);
    }
    a.slots.back().blocks[f.sid] = f.payload;
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
        o.start = Start::Cold;
        return o;
    }
    case kSidWarmStart: {
        if (n != 1) {
            return refuse(kBadLength);
        }
        ++state_.warm_starts;
        Outcome o;
        o.start = Start::Warm;
        return o;
    }
    case kSidSleep: {
        Outcome o;
        o.sleep = true;
        return o;
    }
    default:
        return refuse(kUnknownCommand);
    }
}

// Off (sid 2) and on (sid 3). Sid 4, which the driver sends before sid 3 when a client asks
// for output, is accepted and changes nothing.
Outcome Protocol::nmea(const Frame& f)
{
    if (f.sid < 2 || f.sid > 4) {
        return refuse(kUnknownCommand);
    }
    if (f.sid != 4) {
        state_.nmea_on = f.sid == 3;
    }
    return accept();
}

// The answer carries the fence's identifier (u16, little-endian) and the status.
Outcome Protocol::geofence(const Frame& f)
{
    if (f.sid > kSidGeofenceReport) {
        return refuse(kUnknownCommand);
    }
    GeofenceAnswer a;
    if (geofence_status_) {
        a.id = static_cast<std::uint16_t>(f.payload.size() >= 2 ? f.payload[0] | f.payload[1] << 8
                                                                : 0);
        a.status = *geofence_status_;
    } else {
        a = geofences_.execute(f.sid, f.payload);
        state_.geofences = geofences_.fences();
    }
    Outcome o;
    o.data = {static_cast<std::uint8_t>(a.id), static_cast<std::uint8_t>(a.id >> 8), a.status};
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
