// The chip's geofence table, as the geofence commands (pid 0x30) see it.
//
// Every field travels little-endian, whatever the chip's byte order: the driver passes the
// client's records through as they stand. Each command starts with the fence's identifier
// (u16 at offset 0), and the answer names the fence by that identifier, then gives a status.
//
//   sid 0  add      36 bytes: id, 2 bytes of alignment, i32 latitude and i32 longitude
//                   (1e-7 degree), u32 radius (m), u8 last transition, 3 bytes of alignment,
//                   u32 monitored transitions, u32 notification interval (ms), u32 unknown
//                   timer (ms), u32 reserved
//   sid 1  remove   4 bytes: id, 2 bytes unused
//   sid 2  pause    4 bytes: id, 2 bytes unused
//   sid 3  resume   4 bytes: id, u8 monitored transitions, 1 byte unused
//   sid 4  query    4 bytes: id, 2 bytes unused (succeeds when the fence exists)
//   sid 5  clear    4 bytes: id (only echoed), 2 bytes unused; removes every fence
//   sid 6  report   4 bytes: id, u8 transition; the fence's position state becomes that
//                   transition, which must be one the fence monitors
//
// Transitions are 1 (entered), 2 (exited) and 4 (uncertain); a monitored set is a non-empty
// combination of them. Statuses: 0 done, 1 the table is full, 2 the id already exists, 3 an
// invalid transition, 4 an unknown id, 5 a malformed command (shorter than its fields, or
// a pause of a paused fence, a resume of a running one). A command that fails changes nothing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>

namespace mvgps::sim::chip
{

inline constexpr std::uint8_t kGeofenceDone = 0;
inline constexpr std::uint8_t kGeofenceTooMany = 1;
inline constexpr std::uint8_t kGeofenceIdExists = 2;
inline constexpr std::uint8_t kGeofenceBadTransition = 3;
inline constexpr std::uint8_t kGeofenceUnknownId = 4;
inline constexpr std::uint8_t kGeofenceGeneric = 5;

inline constexpr std::uint8_t kSidGeofenceAdd = 0;
inline constexpr std::uint8_t kSidGeofenceRemove = 1;
inline constexpr std::uint8_t kSidGeofencePause = 2;
inline constexpr std::uint8_t kSidGeofenceResume = 3;
inline constexpr std::uint8_t kSidGeofenceQuery = 4;
inline constexpr std::uint8_t kSidGeofenceClear = 5;
inline constexpr std::uint8_t kSidGeofenceReport = 6;

struct Geofence {
    std::int32_t latitude = 0;
    std::int32_t longitude = 0;
    std::uint32_t radius = 0;
    std::uint8_t last_transition = 0;
    std::uint32_t monitored = 0;
    std::uint32_t interval_ms = 0;
    std::uint32_t unknown_timer_ms = 0;
    bool paused = false;
    bool operator==(const Geofence&) const = default;
};

struct GeofenceAnswer {
    std::uint16_t id = 0;
    std::uint8_t status = kGeofenceDone;
};

class GeofenceTable
{
  public:
    explicit GeofenceTable(std::size_t capacity) : capacity_(capacity) {}

    // sid must be 0 to 6.
    GeofenceAnswer execute(std::uint8_t sid, std::span<const std::uint8_t> payload);
    const std::map<std::uint16_t, Geofence>& fences() const { return fences_; }
    void clear() { fences_.clear(); }

  private:
    std::uint8_t add(std::uint16_t id, std::span<const std::uint8_t> p);
    std::uint8_t change(std::uint8_t sid, Geofence& fence, std::uint8_t arg);

    std::size_t capacity_;
    std::map<std::uint16_t, Geofence> fences_;
};

} // namespace mvgps::sim::chip
