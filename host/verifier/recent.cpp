// The ring of recent events that ends every bug check report.
#include "host/verifier/verifier.h"

#include <array>
#include <cstdio>
#include <mutex>

#include "host/sched/sched.h"

namespace mvgps::verifier
{
namespace
{

struct Ring {
    std::mutex mutex;
    std::array<std::string, kRecentEvents> slots;
    std::size_t next = 0;
    std::size_t count = 0;
};

// Never destroyed: threads may still note events while the process exits.
Ring& ring()
{
    static Ring* r = new Ring;
    return *r;
}

std::string stamp()
{
    if (!sched::installed()) {
        return {};
    }
    auto& s = sched::current();
    char time[32];
    std::snprintf(time, sizeof time, "%12.6f ms ", static_cast<double>(s.now()) / 1e6);
    return time + s.name(s.self()) + ": ";
}

} // namespace

void note(std::string event)
{
    std::string line = stamp() + event;
    Ring& r = ring();
    std::lock_guard lock(r.mutex);
    r.slots[r.next] = std::move(line);
    r.next = (r.next + 1) % kRecentEvents;
    if (r.count < kRecentEvents) {
        ++r.count;
    }
}

std::vector<std::string> recent()
{
    Ring& r = ring();
    std::lock_guard lock(r.mutex);
    std::vector<std::string> out;
    out.reserve(r.count);
    std::size_t first = (r.next + kRecentEvents - r.count) % kRecentEvents;
    for (std::size_t i = 0; i < r.count; ++i) {
        out.push_back(r.slots[(first + i) % kRecentEvents]);
    }
    return out;
}

void clear_recent()
{
    Ring& r = ring();
    std::lock_guard lock(r.mutex);
    r.count = 0;
    r.next = 0;
}

} // namespace mvgps::verifier
