// The chip's command set: what each command does to the chip's state and what its
// acknowledgement carries. No time and no line here; the chip (chip.h) decides when answers
// leave and what faults do to them.
//
//   pid/sid   payload                                   effect
//   04/0      address u32, count u16                    the bytes follow err_status
//   05/w      address u32, data                         w: 1, 2 or 4 bytes; 4 aligned words;
//                                                       0 any number of bytes
//   06/0..6   28, 48, 24, 24, 28, 36, 36 bytes          assistance (see Assistance)
//   10/0      u32: register (low byte), value           RF register recorded
//   16/0      u32 rate, little-endian                   the line switches after the answer
//   20/2      1 byte                                    warm start
//   20/6      2 bytes                                   cold start
//   20/8      none                                      sleep until the next frame
//   22/5      1 byte                                    output option recorded
//   30/0..6   geofence.h                                answer adds id (u16 LE) and status
//   FF/2,3,4  none                                      NMEA off, on, accepted without effect
// A wrong sid is err_status 1, a wrong payload length 2, an argument out of range 3; a
// refused command changes nothing.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "sim/chip/frame.h"
#include "sim/chip/geofence.h"
#include "sim/chip/memory.h"
#include "sim/chip/receiver.h"

namespace mvgps::sim::chip
{

// Multi-byte values inside payloads (addresses, counts, err_status) follow one byte order,
// fixed by the chip's configuration. The driver sends little-endian values from its first
// command on, so that is the default; a big-endian chip shows what an unswitched driver sends.
enum class ByteOrder { Little, Big };

// err_status values of the acknowledgement. Only 0 means the command was carried out.
inline constexpr std::uint32_t kAccepted = 0;
inline constexpr std::uint32_t kUnknownCommand = 1;
inline constexpr std::uint32_t kBadLength = 2;
inline constexpr std::uint32_t kBadArgument = 3;

// Command identifiers.
inline constexpr std::uint8_t kPidMemRead = 0x04;
inline constexpr std::uint8_t kPidMemWrite = 0x05;
inline constexpr std::uint8_t kPidAgps = 0x06;
inline constexpr std::uint8_t kPidRf = 0x10;
inline constexpr std::uint8_t kPidBaud = 0x16;
inline constexpr std::uint8_t kPidReceiver = 0x20; // sids below
inline constexpr std::uint8_t kSidWarmStart = 2;
inline constexpr std::uint8_t kSidColdStart = 6;
inline constexpr std::uint8_t kSidSleep = 8;
inline constexpr std::uint8_t kPidOption = 0x22;
inline constexpr std::uint8_t kSidOption = 5;
inline constexpr std::uint8_t kPidGeofence = 0x30;
inline constexpr std::uint8_t kPidNmea = 0xFF; // sid 2 off, 3 and 4 on
// Frames the chip sends on its own.
inline constexpr std::uint8_t kPidNmeaData = 0x31; // one sentence per frame, sid 0
inline constexpr std::uint8_t kPidStatus = 50;     // sid 0, a 4-byte sequence number

// The longest memory read one acknowledgement can carry.
inline constexpr std::size_t kMaxRead = kMaxPayload - 4;

// Addresses the driver's start-up touches, with their power-on values: the guard register
// that must read 10 before the control byte may change, the control byte (start-up sets 70),
// the chip's revision (read only) and two words of RAM that start-up clears.
inline constexpr std::uint32_t kGuardRegister = 0xB9002212;
inline constexpr std::uint8_t kGuardValue = 10;
inline constexpr std::uint32_t kControlByte = 0xB9002214;
inline constexpr std::uint8_t kControlPowerOn = 0x40;
inline constexpr std::uint32_t kRevision = 0xB90023A4;
inline constexpr std::uint8_t kRevisionValue = 0x21;
inline constexpr std::uint32_t kDownloadWord = 0x8010A74A;
inline constexpr std::uint32_t kColdStartWord = 0x8010A731;

// Assistance as the chip keeps it. A type 0 block (time and position) starts a new set; each
// type 1 block opens the next slot, which the following blocks of types 2 to 6 fill (a block
// sent again replaces the one it repeats). A block of type 2 to 6 with no slot open is
// refused.
struct AgpsSlot {
    std::map<std::uint8_t, std::vector<std::uint8_t>> blocks; // by sid, 1 to 6
    bool operator==(const AgpsSlot&) const = default;
};

struct Assistance {
    std::vector<std::uint8_t> time_position; // the type 0 block; empty: none
    std::vector<AgpsSlot> slots;
    bool operator==(const Assistance&) const = default;
};

// What the chip has been told, for tests to inspect.
struct ChipState {
    bool nmea_on = true;
    bool asleep = false;
    std::optional<std::uint8_t> option;
    std::map<std::uint8_t, std::uint32_t> rf_registers; // register -> 24-bit value
    Assistance agps;
    std::map<std::uint16_t, Geofence> geofences;
    int cold_starts = 0;
    int warm_starts = 0;
};

struct Outcome {
    std::uint32_t err_status = kAccepted;
    std::vector<std::uint8_t> data; // follows err_status in the acknowledgement
    std::optional<std::uint32_t> new_rate;
    bool sleep = false;
    std::optional<Start> start;
    bool assisted = false; // a time and position block arrived
};

class Protocol
{
  public:
    Protocol(ByteOrder order, std::vector<std::uint32_t> rates, std::size_t geofence_capacity);

    Outcome execute(const Frame& command);
    Frame acknowledgement(const Frame& command, const Outcome& o) const;

    std::uint32_t get_u32(const std::uint8_t* p) const;
    void put_u32(std::vector<std::uint8_t>& out, std::uint32_t v) const;

    ChipState& state() { return state_; }
    const ChipState& state() const { return state_; }
    ChipMemory& memory() { return memory_; }
    const ChipMemory& memory() const { return memory_; }
    // Every geofence answer carries this status, and the table is left alone (a chip that
    // reports what it should not); nullopt: the table decides.
    void set_geofence_status(std::optional<std::uint8_t> s) { geofence_status_ = s; }
    // Back to power-on defaults: memory holds its power-on values, read-only ranges stay.
    void reset();

  private:
    Outcome read_memory(const Frame& f);
    Outcome write_memory(const Frame& f);
    Outcome agps(const Frame& f);
    Outcome receiver(const Frame& f);
    Outcome geofence(const Frame& f);
    Outcome nmea(const Frame& f);
    std::uint16_t get_u16(const std::uint8_t* p) const;
    void power_on_memory();

    ByteOrder order_;
    std::vector<std::uint32_t> rates_;
    std::optional<std::uint8_t> geofence_status_;
    GeofenceTable geofences_;
    ChipState state_;
    ChipMemory memory_;
};

} // namespace mvgps::sim::chip
