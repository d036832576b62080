#include "pnp/stack.h"

#include <algorithm>

namespace mvgps::pnp
{
namespace
{

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
    NTSTATUS status;
    {
        PnpOperation op(pnp_lock_);
        status = fdo_ ? fdo_->set_power(PowerDeviceD0) : STATUS_INVALID_DEVICE_STATE;
    }
    // A device that fails to power up is failed: the PnP manager removes it.
    if (!NT_SUCCESS(status) && fdo() && fdo()->pnp_state() == wdf::Device::Pnp::Failed) {
        remove();
    }
    return status;
}

NTSTATUS DeviceStack::disable()
{
    NTSTATUS status;
    {
        PnpOperation op(pnp_lock_);
        status = fdo_ ? fdo_->query_remove() : STATUS_INVALID_DEVICE_STATE;
    }
    if (NT_SUCCESS(status)) {
        unload();
    }
    return status;
}

NTSTATUS DeviceStack::enable()
{
    return fdo() ? STATUS_INVALID_DEVICE_STATE : bring_up();
}

void DeviceStack::surprise_remove()
{
    PnpOperation op(pnp_lock_);
    if (fdo_) {
        fdo_->surprise_remove();
    }
}

void DeviceStack::remove()
{
    PnpOperation op(pnp_lock_);
    if (!fdo_) {
        return;
    }
    wdf::Device* device = fdo_;
    device->remove();
    auto& s = sched::current();
    sched::StateLock lock(s);
    fdo_ = nullptr;
    started_children_ = 0;
    s.wake(children_changed_);
}

void DeviceStack::unload()
{
    remove();
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

} // namespace mvgps::pnp
