#include <cstring>

#include "host/wdf/device.h"
#include "host/wdf/driver.h"
#include "host/wdf/rules.h"

namespace mvgps::wdf
{

NTSTATUS ChildList::add_or_update_present(const WDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER* id)
{
    if (!id || id->IdentificationDescriptionSize != config_.IdentificationDescriptionSize) {
        return STATUS_INVALID_PARAMETER;
    }
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(id);
    std::vector<std::uint8_t> description(bytes, bytes + id->IdentificationDescriptionSize);
    std::function<void(ChildList&)> hook;
    {
        sched::StateLock lock(sched::current());
        if (closed_) {
            return STATUS_INVALID_DEVICE_STATE;
        }
        for (const auto& e : entries_) {
            if (e.description == description) {
                return STATUS_OBJECT_NAME_EXISTS;
            }
        }
        entries_.push_back(Entry{std::move(description)});
        hook = hook_;
    }
    note("child description added");
    if (hook) {
        hook(*this);
    } else {
        enumerate();
    }
    return STATUS_SUCCESS;
}

void ChildList::set_invalidate_hook(std::function<void(ChildList&)> hook)
{
    sched::StateLock lock(sched::current());
    hook_ = std::move(hook);
}

std::vector<Device*> ChildList::enumerate()
{
    std::vector<Device*> created;
    for (;;) {
        Entry* entry = nullptr;
        {
            sched::StateLock lock(sched::current());
            for (auto& e : entries_) {
                if (!closed_ && !e.device && !e.creating) {
                    e.creating = true;
                    entry = &e;
                    break;
                }
            }
        }
        if (!entry) {
            return created;
        }
        WDFDEVICE_INIT init;
        init.driver = device_->driver();
        init.parent = device_;
        init.pdo = true;
        std::vector<std::uint8_t> copy = entry->description;
        auto* header = reinterpret_cast<PWDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER>(copy.data());
        NTSTATUS status = STATUS_INVALID_DEVICE_REQUEST;
        if (config_.EvtChildListCreateDevice) {
            status = call_driver("EvtChildListCreateDevice", config_.EvtChildListCreateDevice,
                                 static_cast<WDFCHILDLIST>(handle()), header, &init);
        }
        bool made = NT_SUCCESS(status) && init.created && !init.created->deleting();
        if (!made && init.created) {
            Objects::remove(init.created.get());
        }
        sched::StateLock lock(sched::current());
        entry->creating = false;
        if (made) {
            entry->device = init.created.get();
            created.push_back(init.created.get());
        } else {
            entries_.remove_if([entry](const Entry& e) { return &e == entry; });
        }
    }
}

std::vector<Device*> ChildList::children() const
{
    sched::StateLock lock(sched::current());
    std::vector<Device*> out;
    for (const auto& e : entries_) {
        if (e.device) {
            out.push_back(e.device);
        }
    }
    return out;
}

void ChildList::close()
{
    sched::StateLock lock(sched::current());
    closed_ = true;
}

void ChildList::forget(Device* child)
{
    sched::StateLock lock(sched::current());
    entries_.remove_if([child](const Entry& e) { return e.device == child; });
}

} // namespace mvgps::wdf
