#include "host/pnp/stack.h"

#include <algorithm>

namespace mvgps::pnp
{
namespace
{

// Guarded by the scheduler's state lock.
std::vector<DeviceStack*>& stacks()
{
    static std::vector<DeviceStack*> all;
    return all;
}

class PnpOperation
{
  public:
    explicit PnpOperation(wdf::HostMutex& lock) : lock_(lock) { lock_.lock(); }
    ~PnpOperation() { lock_.unlock(); }

  private:
    wdf::HostMutex& lock_;
};

} // namespace

DeviceStack::DeviceStack(NodeConfig config)
    : config_(std::move(config)), image_(config_.image, config_.service, config_.parameters)
{
    sched::StateLock lock(sched::current());
    stacks().push_back(this);
}

DeviceStack::~DeviceStack()
{
    unload();
    auto& s = sched::current();
    std::vector<sched::Thread*> threads;
    {
        sched::StateLock lock(s);
        threads.swap(enumerations_);
    }
    for (sched::Thread* t : threads) {
        s.join(t);
    }
    sched::StateLock lock(s);
    stacks().erase(std::remove(stacks().begin(), stacks().end(), this), stacks().end());
}

NTSTATUS DeviceStack::load()
{
    PnpOperation op(pnp_lock_);
    return image_.load();
}

NTSTATUS DeviceStack::add()
{
    PnpOperation op(pnp_lock_);
    if (!image_.loaded() || !image_.driver() || fdo_) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    wdf::Device* device = nullptr;
    NTSTATUS status = wdf::Device::add(image_.driver(), &device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (wdf::ChildList* list = device->child_list()) {
        list->set_invalidate_hook([this](wdf::ChildList&) {
            auto& s = sched::current();
            sched::Thread* thread = s.spawn("PnP enumeration", [this] { enumerate(); });
            sched::StateLock lock(s);
            enumerations_.push_back(thread);
        });
    }
    sched::StateLock lock(sched::current());
    fdo_ = device;
    return STATUS_SUCCESS;
}

void DeviceStack::enumerate()
{
    PnpOperation op(pnp_lock_);
    if (fdo_ && fdo_->child_list()) {
        for (wdf::Device* child : fdo_->child_list()->enumerate()) {
            child->start({});
        }
        std::size_t count = fdo_->child_list()->children().size();
        auto& s = sched::current();
        sched::StateLock lock(s);
        started_children_ = count;
        s.wake(children_changed_);
    }
}

NTSTATUS DeviceStack::start()
{
    PnpOperation op(pnp_lock_);
    if (!fdo_) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    return fdo_->start(config_.resources);
}

NTSTATUS DeviceStack::bring_up()
{
    NTSTATUS status = load();
    if (NT_SUCCESS(status)) {
        status = add();
    }
    if (NT_SUCCESS(status)) {
        status = start();
    }
    if (!NT_SUCCESS(status)) {
        unload();
    }
    return status;
}

NTSTATUS DeviceStack::sleep(DEVICE_POWER_STATE state)
{
    PnpOperation op(pnp_lock_);
    if (!fdo_ || state == PowerDeviceD0) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    return fdo_->set_power(state);
}

NTSTATUS DeviceStack::wake()
{
    PnpOperation op(pnp_lock_);
    return fdo_ ? fdo_->set_power(PowerDeviceD0) : STATUS_INVALID_DEVICE_STATE;
}

NTSTATUS DeviceStack::disable()
{
    if (!fdo()) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    unload();
    return STATUS_SUCCESS;
}

NTSTATUS DeviceStack::enable()
{
    return fdo() ? STATUS_INVALID_DEVICE_STATE : bring_up();
}

void DeviceStack::remove_device(bool surprise)
{
    PnpOperation op(pnp_lock_);
    if (!fdo_) {
        return;
    }
    wdf::Device* device = fdo_;
    device->remove(surprise);
    auto& s = sched::current();
    sched::StateLock lock(s);
    fdo_ = nullptr;
    started_children_ = 0;
    s.wake(children_changed_);
}

void DeviceStack::surprise_remove()
{
    remove_device(true);
}

void DeviceStack::remove()
{
    remove_device(false);
}

void DeviceStack::unload()
{
    remove_device(false);
    PnpOperation op(pnp_lock_);
    if (image_.loaded()) {
        image_.unload();
    }
}

wdf::Device* DeviceStack::fdo() const
{
    sched::StateLock lock(sched::current());
    return fdo_;
}

std::vector<wdf::Device*> DeviceStack::children() const
{
    wdf::Device* device = fdo();
    if (!device || !device->child_list()) {
        return {};
    }
    return device->child_list()->children();
}

bool DeviceStack::wait_for_children(std::size_t count, sched::Nanos deadline)
{
    auto& s = sched::current();
    sched::StateLock lock(s);
    return s.wait(children_changed_, "children to appear", deadline,
                  [&] { return started_children_ >= count; }) == sched::WaitResult::Ready;
}

std::vector<wdf::Device*> DeviceStack::all_devices()
{
    std::vector<DeviceStack*> copy;
    {
        sched::StateLock lock(sched::current());
        copy = stacks();
    }
    std::vector<wdf::Device*> out;
    for (DeviceStack* stack : copy) {
        if (wdf::Device* device = stack->fdo()) {
            out.push_back(device);
            for (wdf::Device* child : stack->children()) {
                out.push_back(child);
            }
        }
    }
    return out;
}

} // namespace mvgps::pnp
