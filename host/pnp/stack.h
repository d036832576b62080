// One device node and the driver image loaded for it: what the PnP, power and I/O manager
// does to a device, step by step. Operations run on the calling thread at PASSIVE_LEVEL,
// one at a time per stack; children the driver reports are created and started on a PnP
// thread of their own.
#pragma once

#include <wdm.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "pnp/image.h"
#include "sched/sched.h"
#include "wdf/device.h"
#include "wdf/host_mutex.h"

namespace mvgps::pnp
{

struct NodeConfig {
    std::string image; // path of the driver's shared object
    std::u16string service = u"mvgps";
    std::map<std::u16string, ULONG> parameters; // the driver's Parameters key
    std::vector<CM_PARTIAL_RESOURCE_DESCRIPTOR> resources;
};

class DeviceStack
{
  public:
    explicit DeviceStack(NodeConfig config);
    // Removes the device and unloads the driver if that has not happened yet.
    ~DeviceStack();
    DeviceStack(const DeviceStack&) = delete;
    DeviceStack& operator=(const DeviceStack&) = delete;

    NTSTATUS load();
    NTSTATUS add();
    NTSTATUS start();
    // load + add + start, stopping at the first failure (and unloading after it).
    NTSTATUS bring_up();
    NTSTATUS sleep(DEVICE_POWER_STATE state = PowerDeviceD3);
    // A device whose driver fails to power it up is removed.
    NTSTATUS wake();
    // Disabling asks the driver (it may veto: the device then keeps running), removes the
    // device and unloads the driver; enabling brings it up again.
    NTSTATUS disable();
    NTSTATUS enable();
    // The device's first removal event; it stays until remove() or unload().
    void surprise_remove();
    void remove();
    void unload();

    wdf::Device* fdo() const;
    std::vector<wdf::Device*> children() const;
    // Waits until `count` children exist, or the deadline passes.
    bool wait_for_children(std::size_t count, sched::Nanos deadline);
    DriverImage& image() { return image_; }
    const NodeConfig& config() const { return config_; }

  private:
    void enumerate();

    NodeConfig config_;
    DriverImage image_;
    wdf::HostMutex pnp_lock_{"PnP operation"};
    wdf::Device* fdo_ = nullptr;
    std::size_t started_children_ = 0;
    sched::WaitList children_changed_;
    std::vector<sched::Thread*> enumerations_;
};

} // namespace mvgps::pnp
