// Event tracing: providers registered by GUID, sessions that enable them, and the events a
// session records.
#include "host/kernel/kernel.h"

#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <vector>

namespace mvgps::kernel
{
namespace
{

constexpr std::size_t kKeepEvents = 8192;

struct Tracing {
    std::mutex mutex;
    std::map<REGHANDLE, GUID> providers;
    std::vector<GUID> sessions;
    std::deque<TraceEvent> events;
    REGHANDLE next = 1;

    bool enabled(const GUID& provider) const
    {
        for (const GUID& g : sessions) {
            if (IsEqualGUID(g, provider)) {
                return true;
            }
        }
        return false;
    }
};

// Never destroyed: a driver thread may still trace while the process exits.
Tracing& tracing()
{
    static Tracing* t = new Tracing;
    return *t;
}

} // namespace

void enable_trace(const GUID& provider, bool on)
{
    Tracing& t = tracing();
    std::lock_guard lock(t.mutex);
    if (on && !t.enabled(provider)) {
        t.sessions.push_back(provider);
    }
    if (!on) {
        std::erase_if(t.sessions, [&](const GUID& g) { return IsEqualGUID(g, provider); });
    }
}

std::vector<TraceEvent> trace_events()
{
    Tracing& t = tracing();
    std::lock_guard lock(t.mutex);
    return {t.events.begin(), t.events.end()};
}

void clear_trace_events()
{
    Tracing& t = tracing();
    std::lock_guard lock(t.mutex);
    t.events.clear();
}

std::size_t registered_providers()
{
    Tracing& t = tracing();
    std::lock_guard lock(t.mutex);
    return t.providers.size();
}

} // namespace mvgps::kernel

using mvgps::kernel::kKeepEvents;
using mvgps::kernel::tracing;

extern "C" {

NTSTATUS EtwRegister(LPCGUID ProviderId, PETWENABLECALLBACK, PVOID, PREGHANDLE RegHandle)
{
    if (ProviderId == nullptr || RegHandle == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    auto& t = tracing();
    std::lock_guard lock(t.mutex);
    *RegHandle = t.next++;
    t.providers[*RegHandle] = *ProviderId;
    return STATUS_SUCCESS;
}

NTSTATUS EtwUnregister(REGHANDLE RegHandle)
{
    auto& t = tracing();
    std::lock_guard lock(t.mutex);
    return t.providers.erase(RegHandle) == 1 ? STATUS_SUCCESS : STATUS_INVALID_HANDLE;
}

BOOLEAN EtwProviderEnabled(REGHANDLE RegHandle, UCHAR, ULONGLONG)
{
    auto& t = tracing();
    std::lock_guard lock(t.mutex);
    auto it = t.providers.find(RegHandle);
    return it != t.providers.end() && t.enabled(it->second);
}

NTSTATUS EtwWriteString(REGHANDLE RegHandle, UCHAR Level, ULONGLONG Keyword, LPCGUID, PCWSTR String)
{
    auto& t = tracing();
    std::lock_guard lock(t.mutex);
    auto it = t.providers.find(RegHandle);
    if (it == t.providers.end()) {
        return STATUS_INVALID_HANDLE;
    }
    if (!t.enabled(it->second) || String == nullptr) {
        return STATUS_SUCCESS;
    }
    std::string text;
    for (const WCHAR* p = String; *p != 0; ++p) {
        text.push_back(*p < 0x80 ? static_cast<char>(*p) : '?');
    }
    t.events.push_back({it->second, Level, Keyword, std::move(text)});
    if (t.events.size() > kKeepEvents) {
        t.events.pop_front();
    }
    return STATUS_SUCCESS;
}

} // extern "C"
