#include "host/wdf/device.h"

#include <cstdio>
#include <cstring>

#include "host/kernel/kernel.h"
#include "host/wdf/driver.h"
#include "host/wdf/request.h"
#include "host/wdf/rules.h"
#include "host/io/names.h"

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

// An open handle to a framework device: what it sends goes to the device's default queue.
// It keeps the device's record readable after the device is removed, and its requests then
// fail as they would on Windows.
class DeviceFile final : public io::File
{
  public:
    explicit DeviceFile(std::shared_ptr<Object> device) : device_(std::move(device)) {}

    void dispatch(std::shared_ptr<io::Request> irp) override
    {
        auto* device = static_cast<Device*>(device_.get());
        auto state = device->pnp_state();
        if (state == Device::Pnp::Removed || state == Device::Pnp::Added) {
            irp->complete(STATUS_DELETE_PENDING, 0);
            return;
        }
        auto request = Request::incoming(device, irp);
        if (!request) {
            irp->complete(STATUS_INSUFFICIENT_RESOURCES, 0);
            return;
        }
        device->dispatch(request);
    }

  private:
    std::shared_ptr<Object> device_;
};

// A device as the object namespace knows it (under each of its interface links).
class DeviceNode final : public io::Device
{
  public:
    explicit DeviceNode(std::weak_ptr<Object> device) : device_(std::move(device)) {}

    NTSTATUS open(const io::OpenParams&, std::unique_ptr<io::File>& file) override
    {
        auto device = device_.lock();
        if (!device ||
            static_cast<wdf::Device*>(device.get())->pnp_state() != wdf::Device::Pnp::Started) {
            return STATUS_NO_SUCH_DEVICE;
        }
        file = std::make_unique<DeviceFile>(std::move(device));
        return STATUS_SUCCESS;
    }

  private:
    std::weak_ptr<Object> device_;
};

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

std::vector<std::shared_ptr<Request>> Device::held_from(const Queue* queue)
{
    std::vector<std::shared_ptr<Request>> held;
    sched::StateLock lock(sched::current());
    for (Request* r : owned_) {
        if (r->queue == queue && !r->cancelled) {
            held.push_back(std::static_pointer_cast<Request>(r->shared_from_this()));
        }
    }
    return held;
}

void Device::stop_power_managed_requests()
{
    auto& s = sched::current();
    for (Queue* queue : queues()) {
        auto stop = queue->config().EvtIoStop;
        if (!queue->power_managed() || !stop) {
            continue;
        }
        for (const auto& r : held_from(queue)) {
            ULONG action = WdfRequestStopActionSuspend;
            {
                sched::StateLock lock(s);
                if (r->cancel_routine) {
                    action |= WdfRequestStopRequestCancelable;
                }
            }
            call_driver("EvtIoStop", stop, queue->wdf(), r->wdf(), action);
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

void Device::resume_stopped_requests()
{
    std::vector<std::pair<Queue*, Request*>> stopped;
    {
        sched::StateLock lock(sched::current());
        for (Request* r : owned_) {
            if (r->stop_acknowledged) {
                r->stop_acknowledged = false; // an acknowledgement holds for one power-down
                stopped.emplace_back(r->queue, r);
            }
        }
    }
    for (auto [queue, r] : stopped) {
        if (auto resume = queue->config().EvtIoResume) {
            call_driver("EvtIoResume", resume, queue->wdf(), r->wdf());
        }
    }
}

bool Device::wait_until_released(const Queue* queue, sched::Nanos deadline, std::size_t* held)
{
    auto& s = sched::current();
    sched::StateLock lock(s);
    auto released = [&] {
        *held = 0;
        for (Request* r : owned_) {
            *held += r->queue == queue;
        }
        return *held == 0;
    };
    return s.wait(drained_, "held requests to complete", deadline, released) ==
           sched::WaitResult::Ready;
}

std::string Device::describe() const
{
    return name_of(this);
}

std::shared_ptr<io::Device> Device::node()
{
    sched::StateLock lock(sched::current());
    if (!node_) {
        node_ = std::make_shared<DeviceNode>(weak_from_this());
    }
    return node_;
}

void Device::register_interfaces(bool on)
{
    for (const auto& i : interfaces()) {
        publish(i, on);
    }
}

void Device::publish(const Interface& i, bool on)
{
    if (on) {
        io::bind(i.link, node());
        kernel::register_interface(i.guid, i.link);
    } else {
        kernel::unregister_interface(i.guid, i.link);
        io::unbind(i.link);
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
        publish(entry, true);
    }
    return STATUS_SUCCESS;
}

void Device::release_hardware()
{
    const auto& cb = init_.pnp;
    bool prepared;
    {
        sched::StateLock lock(sched::current());
        prepared = hardware_prepared_;
        hardware_prepared_ = false;
    }
    if (prepared && cb.EvtDeviceReleaseHardware) {
        call_driver("EvtDeviceReleaseHardware", cb.EvtDeviceReleaseHardware, wdf(),
                    static_cast<WDFCMRESLIST>(translated_->handle()));
    }
    register_interfaces(false);
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
    // Every failure below leaves the device failed; the framework releases the hardware at
    // once (the driver's release must cope with a half-prepared device) and the removal
    // that follows runs Flush and Cleanup if SelfManagedIoInit was called.
    auto fail = [&](NTSTATUS failure) {
        release_hardware();
        sched::StateLock lock(sched::current());
        pnp_ = Pnp::Failed;
        return failure;
    };
    note("start " + name_of(this));
    {
        sched::StateLock lock(sched::current());
        hardware_prepared_ = true;
    }
    if (cb.EvtDevicePrepareHardware) {
        status = call_driver("EvtDevicePrepareHardware", cb.EvtDevicePrepareHardware, wdf(),
                             static_cast<WDFCMRESLIST>(raw_->handle()),
                             static_cast<WDFCMRESLIST>(translated_->handle()));
        if (!NT_SUCCESS(status)) {
            return fail(status);
        }
    }
    status = enter_d0(WdfPowerDeviceD3Final);
    if (!NT_SUCCESS(status)) {
        return fail(status);
    }
    {
        sched::StateLock lock(sched::current());
        self_managed_io_ = true;
    }
    if (cb.EvtDeviceSelfManagedIoInit) {
        status = call_driver("EvtDeviceSelfManagedIoInit", cb.EvtDeviceSelfManagedIoInit, wdf());
        if (!NT_SUCCESS(status)) {
            leave_d0(WdfPowerDeviceD3Final, false);
            return fail(status);
        }
    }
    {
        sched::StateLock lock(sched::current());
        pnp_ = Pnp::Started;
    }
    register_interfaces(true);
    return STATUS_SUCCESS;
}

NTSTATUS Device::enter_d0(WDF_POWER_DEVICE_STATE previous)
{
    const auto& cb = init_.pnp;
    if (cb.EvtDeviceD0Entry) {
        NTSTATUS status = call_driver("EvtDeviceD0Entry", cb.EvtDeviceD0Entry, wdf(), previous);
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    {
        sched::StateLock lock(sched::current());
        power_ = PowerDeviceD0;
    }
    if (cb.EvtDeviceD0EntryPostInterruptsEnabled) {
        call_driver("EvtDeviceD0EntryPostInterruptsEnabled",
                    cb.EvtDeviceD0EntryPostInterruptsEnabled, wdf(), previous);
    }
    resume_stopped_requests();
    set_queues_running(true);
    return STATUS_SUCCESS;
}

void Device::leave_d0(WDF_POWER_DEVICE_STATE target, bool suspend)
{
    const auto& cb = init_.pnp;
    bool managed;
    {
        sched::StateLock lock(sched::current());
        managed = self_managed_io_;
    }
    if (suspend && managed && cb.EvtDeviceSelfManagedIoSuspend) {
        call_driver("EvtDeviceSelfManagedIoSuspend", cb.EvtDeviceSelfManagedIoSuspend, wdf());
    }
    set_queues_running(false);
    stop_power_managed_requests();
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

NTSTATUS Device::set_power(DEVICE_POWER_STATE state)
{
    if (pnp_state() != Pnp::Started) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    std::vector<Device*> kids = child_list_ ? child_list_->children() : std::vector<Device*>{};
    if (state != PowerDeviceD0) {
        for (Device* kid : kids) {
            kid->set_power(state);
        }
        if (in_d0()) {
            note("sleep " + name_of(this));
            leave_d0(wdf_state(state), true);
        }
        return STATUS_SUCCESS;
    }
    if (in_d0()) {
        return STATUS_SUCCESS;
    }
    note("wake " + name_of(this));
    WDF_POWER_DEVICE_STATE previous;
    {
        sched::StateLock lock(sched::current());
        previous = last_dx_;
    }
    NTSTATUS status = enter_d0(previous);
    if (!NT_SUCCESS(status)) {
        // The device failed: the framework releases its hardware; the PnP manager removes it.
        release_hardware();
        sched::StateLock lock(sched::current());
        pnp_ = Pnp::Failed;
        return status;
    }
    const auto& cb = init_.pnp;
    if (cb.EvtDeviceSelfManagedIoRestart) {
        call_driver("EvtDeviceSelfManagedIoRestart", cb.EvtDeviceSelfManagedIoRestart, wdf());
    }
    // A child that never started (its own start-up failed) has no power state to follow.
    for (Device* kid : kids) {
        if (NT_SUCCESS(status) && kid->pnp_state() == Pnp::Started) {
            status = kid->set_power(PowerDeviceD0);
        }
    }
    return status;
}

NTSTATUS Device::query_remove()
{
    std::vector<Device*> kids = child_list_ ? child_list_->children() : std::vector<Device*>{};
    for (Device* kid : kids) {
        NTSTATUS status = kid->query_remove();
        if (!NT_SUCCESS(status)) {
            return status;
        }
    }
    auto query = init_.pnp.EvtDeviceQueryRemove;
    return query ? call_driver("EvtDeviceQueryRemove", query, wdf()) : STATUS_SUCCESS;
}

void Device::purge_queues(bool power_managed)
{
    for (Queue* queue : queues()) {
        if (queue->power_managed() == power_managed) {
            queue->purge(true);
        }
    }
}

void Device::flush_once()
{
    auto flush = init_.pnp.EvtDeviceSelfManagedIoFlush;
    bool due;
    {
        sched::StateLock lock(sched::current());
        due = self_managed_io_ && !flushed_;
        flushed_ = true;
    }
    if (due && flush) {
        call_driver("EvtDeviceSelfManagedIoFlush", flush, wdf());
    }
}

void Device::surprise_remove()
{
    {
        sched::StateLock lock(sched::current());
        if (pnp_ == Pnp::Removed || pnp_ == Pnp::SurpriseRemoved) {
            return;
        }
        pnp_ = Pnp::SurpriseRemoved;
    }
    for (Device* kid : child_list_ ? child_list_->children() : std::vector<Device*>{}) {
        kid->surprise_remove();
    }
    note("surprise removal " + name_of(this));
    if (auto surprise = init_.pnp.EvtDeviceSurpriseRemoval) {
        call_driver("EvtDeviceSurpriseRemoval", surprise, wdf());
    }
    if (in_d0()) {
        leave_d0(WdfPowerDeviceD3Final, true);
    }
    release_hardware();
    purge_queues(true);
    flush_once();
}

void Device::remove()
{
    {
        sched::StateLock lock(sched::current());
        if (pnp_ == Pnp::Removed) {
            return;
        }
        pnp_ = Pnp::Removed;
    }
    if (child_list_) {
        child_list_->close();
        for (Device* kid : child_list_->children()) {
            kid->remove();
            child_list_->forget(kid);
        }
    }
    note("removal " + name_of(this));
    if (in_d0()) {
        leave_d0(WdfPowerDeviceD3Final, true);
    }
    release_hardware();
    purge_queues(true);
    flush_once();
    purge_queues(false);
    bool managed;
    {
        sched::StateLock lock(sched::current());
        managed = self_managed_io_;
    }
    if (managed && init_.pnp.EvtDeviceSelfManagedIoCleanup) {
        call_driver("EvtDeviceSelfManagedIoCleanup", init_.pnp.EvtDeviceSelfManagedIoCleanup,
                    wdf());
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
