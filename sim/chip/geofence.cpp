#include "sim/chip/geofence.h"

namespace mvgps::sim::chip
{

namespace
{

constexpr std::size_t kAddSize = 36;
constexpr std::size_t kCommandSize = 4;
constexpr std::uint32_t kAllTransitions = 1 | 2 | 4;

std::uint32_t le(std::span<const std::uint8_t> p, std::size_t at, int n)
{
    std::uint32_t v = 0;
    for (int i = n - 1; i >= 0; --i) {
        v = v << 8 | p[at + i];
    }
    return v;
}

bool one_transition(std::uint32_t t)
{
    return t == 1 || t == 2 || t == 4;
}

bool transition_set(std::uint32_t t)
{
    return t != 0 && (t & ~kAllTransitions) == 0;
}

} // namespace

GeofenceAnswer GeofenceTable::execute(std::uint8_t sid, std::span<const std::uint8_t> p)
{
    GeofenceAnswer a;
    if (p.size() < 2) {
        a.status = kGeofenceGeneric;
        return a;
    }
    a.id = static_cast<std::uint16_t>(le(p, 0, 2));
    if (sid == kSidGeofenceAdd) {
        a.status = add(a.id, p);
        return a;
    }
    if (p.size() < kCommandSize) {
        a.status = kGeofenceGeneric;
        return a;
    }
    if (sid == kSidGeofenceClear) {
        fences_.clear();
        return a;
    }
    auto it = fences_.find(a.id);
    if (it == fences_.end()) {
        a.status = kGeofenceUnknownId;
        return a;
    }
    if (sid == kSidGeofenceRemove) {
        fences_.erase(it);
        return a;
    }
    a.status = change(sid, it->second, p[2]);
    return a;
}

std::uint8_t GeofenceTable::add(std::uint16_t id, std::span<const std::uint8_t> p)
{
    if (p.size() < kAddSize) {
        return kGeofenceGeneric;
    }
    if (fences_.contains(id)) {
        return kGeofenceIdExists;
    }
    if (fences_.size() >= capacity_) {
        return kGeofenceTooMany;
    }
    Geofence f;
    f.latitude = static_cast<std::int32_t>(le(p, 4, 4));
    f.longitude = static_cast<std::int32_t>(le(p, 8, 4));
    f.radius = le(p, 12, 4);
    f.last_transition = p[16];
    f.monitored = le(p, 20, 4);
    f.interval_ms = le(p, 24, 4);
    f.unknown_timer_ms = le(p, 28, 4);
    if (!one_transition(f.last_transition) || !transition_set(f.monitored)) {
        return kGeofenceBadTransition;
    }
    fences_.emplace(id, f);
    return kGeofenceDone;
}

std::uint8_t GeofenceTable::change(std::uint8_t sid, Geofence& fence, std::uint8_t arg)
{
    switch (sid) {
    case kSidGeofencePause:
        if (fence.paused) {
            return kGeofenceGeneric;
        }
        fence.paused = true;
        return kGeofenceDone;
    case kSidGeofenceResume:
        if (!fence.paused) {
            return kGeofenceGeneric;
        }
        if (!transition_set(arg)) {
            return kGeofenceBadTransition;
        }
        fence.paused = false;
        fence.monitored = arg;
        return kGeofenceDone;
    case kSidGeofenceReport:
        if (!one_transition(arg) || (fence.monitored & arg) == 0) {
            return kGeofenceBadTransition;
        }
        fence.last_transition = arg;
        return kGeofenceDone;
    default: // query
        return kGeofenceDone;
    }
}

} // namespace mvgps::sim::chip
