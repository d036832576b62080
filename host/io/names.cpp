#include "io/names.h"

#include <map>
#include <mutex>
#include <vector>

#include "io/fold.h"

namespace mvgps::io
{
namespace
{

// The namespace changes only while tests set up or tear down their world and while devices
// come and go, never across a scheduling point, so a plain mutex guards it.
struct Namespace {
    std::mutex lock;
    std::map<std::u16string, std::shared_ptr<Device>> names;
    std::multimap<const Device*, std::weak_ptr<RemovalListener>> listeners;
};

Namespace& space()
{
    static Namespace ns;
    return ns;
}

std::vector<std::shared_ptr<RemovalListener>> listeners_of(const Device* device)
{
    std::vector<std::shared_ptr<RemovalListener>> out;
    std::lock_guard lock(space().lock);
    auto [first, last] = space().listeners.equal_range(device);
    for (auto it = first; it != last; ++it) {
        if (auto l = it->second.lock()) {
            out.push_back(std::move(l));
        }
    }
    return out;
}

} // namespace

void bind(std::u16string_view name, std::shared_ptr<Device> device)
{
    std::lock_guard lock(space().lock);
    space().names[fold(name)] = std::move(device);
}

bool unbind(std::u16string_view name)
{
    std::lock_guard lock(space().lock);
    return space().names.erase(fold(name)) != 0;
}

std::shared_ptr<Device> lookup(std::u16string_view name)
{
    std::lock_guard lock(space().lock);
    auto it = space().names.find(fold(name));
    return it == space().names.end() ? nullptr : it->second;
}

NTSTATUS open(std::u16string_view name, const OpenParams& params, std::unique_ptr<File>& file)
{
    auto device = lookup(name);
    if (!device) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    return device->open(params, file);
}

void listen(const Device* device, std::weak_ptr<RemovalListener> listener)
{
    std::lock_guard lock(space().lock);
    auto& all = space().listeners;
    // A listener that opens the device again (after a cancelled removal) is told once.
    auto same = listener.lock();
    std::erase_if(all, [&](const auto& entry) {
        auto l = entry.second.lock();
        return !l || (entry.first == device && l == same);
    });
    all.emplace(device, std::move(listener));
}

NTSTATUS query_remove(std::u16string_view name)
{
    auto device = lookup(name);
    if (!device) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    auto listeners = listeners_of(device.get());
    for (std::size_t i = 0; i < listeners.size(); i++) {
        NTSTATUS status = listeners[i]->query_remove();
        if (!NT_SUCCESS(status)) {
            for (std::size_t j = 0; j < i; j++) {
                listeners[j]->remove_cancelled();
            }
            return status;
        }
    }
    return STATUS_SUCCESS;
}

void cancel_remove(std::u16string_view name)
{
    if (auto device = lookup(name)) {
        for (const auto& l : listeners_of(device.get())) {
            l->remove_cancelled();
        }
    }
}

void remove(std::u16string_view name)
{
    auto device = lookup(name);
    if (!device) {
        return;
    }
    for (const auto& l : listeners_of(device.get())) {
        l->remove_complete();
    }
    std::lock_guard lock(space().lock);
    space().listeners.erase(device.get());
    std::erase_if(space().names, [&](const auto& entry) { return entry.second == device; });
}

} // namespace mvgps::io
