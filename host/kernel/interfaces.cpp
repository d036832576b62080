// The registry of device interfaces that IoGetDeviceInterfaces reads.
#include "host/kernel/kernel.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <mutex>

namespace mvgps::kernel
{
namespace
{

// Pool tag of the lists IoGetDeviceInterfaces hands out ("IoDI" in memory).
constexpr ULONG kListTag = 0x49446F49;

struct GuidLess {
    bool operator()(const GUID& a, const GUID& b) const
    {
        return std::memcmp(&a, &b, sizeof(GUID)) < 0;
    }
};

struct Registry {
    std::mutex mutex;
    std::map<GUID, std::vector<std::u16string>, GuidLess> links;
};

// Never destroyed: a device may look interfaces up while the process exits.
Registry& registry()
{
    static Registry* r = new Registry;
    return *r;
}

} // namespace

void register_interface(const GUID& interface_class, std::u16string_view link)
{
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    auto& list = r.links[interface_class];
    if (std::find(list.begin(), list.end(), link) == list.end()) {
        list.emplace_back(link);
    }
}

bool unregister_interface(const GUID& interface_class, std::u16string_view link)
{
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    auto& list = r.links[interface_class];
    auto it = std::find(list.begin(), list.end(), link);
    if (it == list.end()) {
        return false;
    }
    list.erase(it);
    return true;
}

std::vector<std::u16string> interfaces(const GUID& interface_class)
{
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    auto it = r.links.find(interface_class);
    return it == r.links.end() ? std::vector<std::u16string>{} : it->second;
}

} // namespace mvgps::kernel

extern "C" {

// The list is one pool block: each link with its terminator, then one more terminator.
// The caller frees it with ExFreePool or ExFreePoolWithTag(list, 0).
NTSTATUS IoGetDeviceInterfaces(const GUID* InterfaceClassGuid, PDEVICE_OBJECT, ULONG,
                               PZZWSTR* SymbolicLinkList)
{
    if (InterfaceClassGuid == nullptr || SymbolicLinkList == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    auto links = mvgps::kernel::interfaces(*InterfaceClassGuid);
    size_t units = 1;
    for (const auto& link : links) {
        units += link.size() + 1;
    }
    auto* list = static_cast<WCHAR*>(
        ExAllocatePoolWithTag(PagedPool, units * sizeof(WCHAR), mvgps::kernel::kListTag));
    if (list == nullptr) {
        *SymbolicLinkList = nullptr;
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    WCHAR* p = list;
    for (const auto& link : links) {
        p = std::copy(link.begin(), link.end(), p);
        *p++ = 0;
    }
    *p = 0;
    *SymbolicLinkList = list;
    return STATUS_SUCCESS;
}

} // extern "C"
