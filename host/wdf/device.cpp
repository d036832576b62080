#include "host/wdf/device.h"

#include <cstdio>
#include <cstring>

#include "host/kernel/kernel.h"
#include "host/wdf/driver.h"
#include "host/wdf/request.h"
#include "host/wdf/rules.h"

namespace mvgps::wdf
{
namespace
{

sched::Nanos g_power_watchdog = 300 * sched::kSecond;

WDF_POWER_DEVICE_STATE wdf_state(DEVICE_POWER_STATE state)
{
    switch (state) {
    case PowerDeviceD0:
        return WdfPowerDeviceD0;
    case PowerDeviceD1:
        return WdfPowerDeviceD1;
    case PowerDeviceD2:
        return WdfPowerDeviceD2;
    default:
        return WdfPowerDeviceD3;
    }
}

std::string name_of(const Device* device)
{
    char text[64];
    std::snprintf(text, sizeof text, "%s %p", device->is_pdo() ? "PDO" : "FDO", device->handle());
    return text;
}

} // namespace

void set_power_watchdog(sched::Nanos timeout)
{
    g_power_watchdog = timeout;
}
sched::Nanos power_watchdog()
{
    return g_power_watchdog;
}

Device* Object::device()
{
    for (Object* o = this; o; o = o->parent()) {
        if (o->kind() == Kind::Device) {
            return static_cast<Device*>(o);
        }
    }
    return nullptr;
}

Device::Device(const WDFDEVICE_INIT& init) : Object(Kind::Device), init_(init)
{
    WDF_DEVICE_STATE_INIT(&device_state_);
    WDF_DEVICE_PNP_CAPABILITIES_INIT(&pnp_caps_);
    WDF_DEVICE_POWER_CAPABILITIES_INIT(&power_caps_);
}

NTSTATUS Device::add(Driver* driver, Device** device)
{
    *device = nullptr;
    auto init = std::make_unique<WDFDEVICE_INIT>();
    init->driver = driver;
    PWDFDEVICE_INIT record = init.get();
    auto add = driver->config().EvtDriverDeviceAdd;
    if (!add) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    note("EvtDriverDeviceAdd");
    NTSTATUS status =
        call_driver("EvtDriverDeviceAdd", add, static_cast<WDFDRIVER>(driver->handle()), record);
    std::shared_ptr<Device> created = init->created;
    if (!NT_SUCCESS(status)) {
        if (created) {
            Objects::remove(created.get());
        }
        return status;
    }
    if (!created || created->deleting()) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    *device = created.get();
    return STATUS_SUCCESS;
}

Device::Pnp Device::pnp_state() const
{
    sched::StateLock lock(sched::current());
    return pnp_;
}

DEVICE_POWER_STATE Device::power_state() const
{
    sched::StateLock lock(sched::current());
    return power_;
}

bool Device::in_d0() const
{
    return power_state() == PowerDeviceD0;
}

bool Device::driver_may_delete() const
{
    sched::StateLock lock(sched::current());
    return pnp_ == Pnp::Added;
}

std::vector<Queue*> Device::queues()
{
    std::vector<Queue*> out;
    for (auto& child : Objects::children(this)) {
        if (child->kind() == Kind::Queue) {
            out.push_back(static_cast<Queue*>(child.get()));
        }
    }
    return out;
}

Queue* Device::default_queue() const
{
    sched::StateLock lock(sched::current());
    return default_queue_;
}

void Device::set_default_queue(Queue* queue)
{
    sched::StateLock lock(sched::current());
    default_queue_ = queue;
}

void Device::dispatch(const std::shared_ptr<Request>& request)
{
    Queue* queue = default_queue();
    NTSTATUS status = queue ? queue->enqueue(request) : STATUS_INVALID_DEVICE_REQUEST;
    if (!NT_SUCCESS(status)) {
        request->finish(status, 0);
    }
}

void Device::set_queues_running(bool running)
{
    for (Queue* queue : queues()) {
        if (queue->power_managed()) {
            queue->set_running(running);
        }
    }
}

void Device::take_ownership(Request* request)
{
    request->owner_device = this;
    owned_.insert(request);
}

void Device::release_ownership(Request* request)
{
    owned_.erase(request);
    request->owner_device = nullptr;
    sched::current().wake(drained_);
}

void Device::ownership_changed()
{
    sched::current().wake(drained_);
}

void Device::drain_power_managed_requests()
{
    auto& s = sched::current();
    for (Queue* queue : queues()) {
        auto stop = queue->config().EvtIoStop;
        if (!queue->power_managed() || !stop) {
            continue;
        }
        std::vector<WDFREQUEST> held;
        {
            sched::StateLock lock(s);
            for (Request* r : owned_) {
                if (r->queue == queue) {
                    held.push_back(r->wdf());
                }
            }
        }
        for (WDFREQUEST r : held) {
            call_driver("EvtIoStop", stop, queue->wdf(), r,
                        static_cast<ULONG>(WdfRequestStopActionSuspend));
        }
    }
    sched::Nanos deadline = s.now() + g_power_watchdog;
    Request* stuck = nullptr;
    sched::WaitResult result;
    {
        sched::StateLock lock(s);
        result = s.wait(drained_, "power-managed requests to complete", deadline, [&] {
            for (Request* r : owned_) {
                if (r->queue && r->queue->power_managed() && !r->stop_acknowledged) {
                    stuck = r;
                    return false;
                }
            }
            return true;
        });
    }
    if (result == sched::WaitResult::TimedOut) {
        power_failure(name_of(this) +
                          " cannot leave D0: a request it received from a power-managed queue "
                          "was never completed",
                      reinterpret_cast<std::uintptr_t>(stuck ? stuck->handle() : nullptr));
    }
}

void Device::register_interfaces(bool on)
{
    for (const auto& i : interfaces()) {
        if (on) {
            kernel::register_interface(i.guid, i.link);
        } else {
            kernel::unregister_interface(i.guid, i.link);
        }
    }
}

std::vector<Device::Interface> Device::interfaces() const
{
    sched::StateLock lock(sched::current());
    return interfaces_;
}

NTSTATUS Device::add_interface(const GUID& guid, PCUNICODE_STRING reference)
{
    char16_t text[96];
    char ascii[96];
    std::snprintf(ascii, sizeof ascii,
                  "\\??\\MVGPS#%p#{%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x}", handle(),
                  static_cast<unsigned>(guid.Data1), guid.Data2, guid.Data3, guid.Data4[0],
                  guid.Data4[1], guid.Data4[2], guid.Data4[3], guid.Data4[4], guid.Data4[5],
                  guid.Data4[6], guid.Data4[7]);
    std::size_t n = std::strlen(ascii);
    for (std::size_t i = 0; i <= n; i++) {
        text[i] = static_cast<char16_t>(ascii[i]);
    }
    Interface entry{guid, {}, text};
    if (reference && reference->Buffer) {
        entry.reference.assign(reinterpret_cast<const char16_t*>(reference->Buffer),
                               reference->Length / sizeof(WCHAR));
        entry.link += u"\\" + entry.reference;
    }
    bool started;
    {
        sched::StateLock lock(sched::current());
        for (const auto& i : interfaces_) {
            if (i.link == entry.link) {
                return STATUS_OBJECT_NAME_COLLISION;
            }
        }
        interfaces_.push_back(entry);
        started = pnp_ == Pnp::Started;
    }
    if (started) {
        kernel::register_interface(entry.guid, entry.link);
    }
    return STATUS_SUCCESS;
}

NTSTATUS Device::start(const std::vector<CM_PARTIAL_RESOURCE_DESCRIPTOR>& resources)
{
    const auto& cb = init_.pnp;
    auto raw = std::make_shared<ResourceList>(resources);
    auto translated = std::make_shared<ResourceList>(resources);
    NTSTATUS status = Objects::attach(raw, nullptr, this);
    if (NT_SUCCESS(status)) {
        status = Objects::attach(translated, nullptr, this);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    raw_ = raw.get();
    translated_ = translated.get();
    auto fail = [&](NTSTATUS failure) {
        sched::StateLock lock(sched::current());
        pnp_ = Pnp::Failed;
        return failure;
    };
    note("start " + name_of(this));
    if (cb.EvtDevicePrepareHardware) {
        status = call_driver("EvtDevicePrepareHardware", cb.EvtDevicePrepareHardware, wdf(),
                             static_cast<WDFCMRESLIST>(raw_->handle()),
                             static_cast<WDFCMRESLIST>(translated_->handle()));
        if (!NT_SUCCESS(status)) {
            return fail(status);
        }
    }
    auto release = [&] {
        if (cb.EvtDeviceReleaseHardware) {
            call_driver("EvtDeviceReleaseHardware", cb.EvtDeviceReleaseHardware, wdf(),
                        static_cast<WDFCMRESLIST>(translated_->handle()));
        }
    };
    if (cb.EvtDeviceD0Entry) {
        status = call_driver("EvtDeviceD0Entry", cb.EvtDeviceD0Entry, wdf(), WdfPowerDeviceD3Final);
        if (!NT_SUCCESS(status)) {
            release();
            return fail(status);
        }
    }
    {
        sched::StateLock lock(sched::current());
        power_ = PowerDeviceD0;
    }
    if (cb.EvtDeviceD0EntryPostInterruptsEnabled) {
        call_driver("EvtDeviceD0EntryPostInterruptsEnabled",
                    cb.EvtDeviceD0EntryPostInterruptsEnabled, wdf(), WdfPowerDeviceD3Final);
    }
    set_queues_running(true);
    if (cb.EvtDeviceSelfManagedIoInit) {
        status = call_driver("EvtDeviceSelfManagedIoInit", cb.EvtDeviceSelfManagedIoInit, wdf());
        if (!NT_SUCCESS(status)) {
            set_queues_running(false);
            if (cb.EvtDeviceD0Exit) {
                call_driver("EvtDeviceD0Exit", cb.EvtDeviceD0Exit, wdf(), WdfPowerDeviceD3Final);
            }
            {
                sched::StateLock lock(sched::current());
                power_ = PowerDeviceD3;
            }
            release();
            return fail(status);
        }
    }
    {
        sched::StateLock lock(sched::current());
        self_managed_io_ = true;
        pnp_ = Pnp::Started;
    }
    register_interfaces(true);
    return STATUS_SUCCESS;
}

void Device::power_down(WDF_POWER_DEVICE_STATE target)
{
    const auto& cb = init_.pnp;
    set_queues_running(false);
    drain_power_managed_requests();
    if (cb.EvtDeviceSelfManagedIoSuspend) {
        call_driver("EvtDeviceSelfManagedIoSuspend", cb.EvtDeviceSelfManagedIoSuspend, wdf());
    }
    if (cb.EvtDeviceD0ExitPreInterruptsDisabled) {
        call_driver("EvtDeviceD0ExitPreInterruptsDisabled", cb.EvtDeviceD0ExitPreInterruptsDisabled,
                    wdf(), target);
    }
    if (cb.EvtDeviceD0Exit) {
        call_driver("EvtDeviceD0Exit", cb.EvtDeviceD0Exit, wdf(), target);
    }
    sched::StateLock lock(sched::current());
    power_ = target == WdfPowerDeviceD1   ? PowerDeviceD1
             : target == WdfPowerDeviceD2 ? PowerDeviceD2
                                          : PowerDeviceD3;
    last_dx_ = target;
}

NTSTATUS Device::power_up()
{
    const auto& cb = init_.pnp;
    WDF_POWER_DEVICE_STATE previous;
    {
        sched::StateLock lock(sched::current());
        previous = last_dx_;
    }
    if (cb.EvtDeviceD0Entry) {
        NTSTATUS status = call_driver("EvtDeviceD0Entry", cb.EvtDeviceD0Entry, wdf(), previous);
        if (!NT_SUCCESS(status)) {
            sched::StateLock lock(sched::current());
            pnp_ = Pnp::Failed;
            return status;
        }
    }
    {
        sched::StateLock lock(sched::current());
        power_ = PowerDeviceD0;
        for (Request* r : owned_) {
            r->stop_acknowledged = false; // an acknowledgement holds for one power-down
        }
    }
    if (cb.EvtDeviceD0EntryPostInterruptsEnabled) {
        call_driver("EvtDeviceD0EntryPostInterruptsEnabled",
                    cb.EvtDeviceD0EntryPostInterruptsEnabled, wdf(), previous);
    }
    set_queues_running(true);
    if (cb.EvtDeviceSelfManagedIoRestart) {
        call_driver("EvtDeviceSelfManagedIoRestart", cb.EvtDeviceSelfManagedIoRestart, wdf());
    }
    return STATUS_SUCCESS;
}

NTSTATUS Device::set_power(DEVICE_POWER_STATE state)
{
    if (pnp_state() != Pnp::Started) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    std::vector<Device*> kids = child_list_ ? child_list_->children() : std::vector<Device*>{};
    if (state == PowerDeviceD0) {
        if (in_d0()) {
            return STATUS_SUCCESS;
        }
        note("wake " + name_of(this));
        NTSTATUS status = power_up();
        for (Device* kid : kids) {
            if (NT_SUCCESS(status)) {
                status = kid->set_power(PowerDeviceD0);
            }
        }
        return status;
    }
    for (Device* kid : kids) {
        kid->set_power(state);
    }
    if (in_d0()) {
        note("sleep " + name_of(this));
        power_down(wdf_state(state));
    }
    return STATUS_SUCCESS;
}

void Device::remove(bool surprise)
{
    const auto& cb = init_.pnp;
    Pnp was;
    {
        sched::StateLock lock(sched::current());
        was = pnp_;
        if (was == Pnp::Removed) {
            return;
        }
        pnp_ = Pnp::Removed;
    }
    if (child_list_) {
        child_list_->close();
        for (Device* kid : child_list_->children()) {
            kid->remove(surprise);
            child_list_->forget(kid);
        }
    }
    note(std::string(surprise ? "surprise removal " : "removal ") + name_of(this));
    if (was == Pnp::Started) {
        register_interfaces(false);
        if (in_d0()) {
            power_down(WdfPowerDeviceD3Final);
        }
        if (surprise && cb.EvtDeviceSurpriseRemoval) {
            call_driver("EvtDeviceSurpriseRemoval", cb.EvtDeviceSurpriseRemoval, wdf());
        }
        if (cb.EvtDeviceReleaseHardware) {
            call_driver("EvtDeviceReleaseHardware", cb.EvtDeviceReleaseHardware, wdf(),
                        static_cast<WDFCMRESLIST>(translated_->handle()));
        }
        if (self_managed_io_ && cb.EvtDeviceSelfManagedIoFlush) {
            call_driver("EvtDeviceSelfManagedIoFlush", cb.EvtDeviceSelfManagedIoFlush, wdf());
        }
        if (self_managed_io_ && cb.EvtDeviceSelfManagedIoCleanup) {
            call_driver("EvtDeviceSelfManagedIoCleanup", cb.EvtDeviceSelfManagedIoCleanup, wdf());
        }
    }
    for (Queue* queue : queues()) {
        queue->purge();
    }
    std::size_t leaked;
    WDFOBJECT first = nullptr;
    {
        sched::StateLock lock(sched::current());
        leaked = owned_.size();
        if (leaked) {
            first = (*owned_.begin())->handle();
        }
    }
    if (leaked) {
        violation(Rule::RequestLeaked,
                  name_of(this) + " removed while the driver still holds " +
                      std::to_string(leaked) + " request(s) it never completed",
                  reinterpret_cast<std::uintptr_t>(first), leaked);
    }
    Objects::remove(this);
}

void Device::teardown()
{
    if (pnp_state() == Pnp::Started) {
        register_interfaces(false);
    }
}

} // namespace mvgps::wdf
