// Devices and their PnP and power life: the framework's side of the state machine that the
// host's PnP manager drives. Callbacks run in the real framework's order:
//   start:    PrepareHardware -> D0Entry(D3Final) -> power-managed queues start
//             -> SelfManagedIoInit
//   sleep:    SelfManagedIoSuspend -> power-managed queues hold (EvtIoStop) -> D0Exit(Dx)
//   wake:     D0Entry(Dx) -> queues restart (EvtIoResume) -> SelfManagedIoRestart
//   removal:  children removed -> Suspend -> queues hold -> D0Exit(D3Final)
//             -> ReleaseHardware -> interfaces disabled -> power-managed queues purged
//             -> SelfManagedIoFlush -> other queues purged -> SelfManagedIoCleanup -> deletion
//   surprise: SurpriseRemoval -> the removal up to Flush; the device lives on, its other
//             queues still dispatching, until the later removal does the rest.
//   failure:  a failed PrepareHardware, D0Entry or SelfManagedIoInit (after D0Exit) is
//             followed by ReleaseHardware; the removal then runs Flush and Cleanup if
//             SelfManagedIoInit was called. A failed D0Entry on wake fails the device too.
#pragma once

#include <wdf.h>

#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "io/names.h"
#include "sched/sched.h"
#include "wdf/host_mutex.h"
#include "wdf/object.h"

namespace mvgps::wdf
{
class Device;
class ChildList;
class Queue;
class Request;
} // namespace mvgps::wdf

// What a driver fills in before WdfDeviceCreate.
struct WDFDEVICE_INIT {
    mvgps::wdf::Driver* driver = nullptr;
    mvgps::wdf::Device* parent = nullptr; // the bus device, for a child
    bool pdo = false;
    DEVICE_TYPE device_type = FILE_DEVICE_UNKNOWN;
    WDF_PNPPOWER_EVENT_CALLBACKS pnp{};
    WDF_POWER_POLICY_EVENT_CALLBACKS power_policy{};
    std::optional<WDF_CHILD_LIST_CONFIG> child_list;
    std::optional<WDF_OBJECT_ATTRIBUTES> child_list_attributes;
    // Child identity.
    std::u16string device_id;
    std::u16string instance_id;
    std::vector<std::u16string> hardware_ids;
    std::vector<std::u16string> compatible_ids;
    struct Text {
        std::u16string description;
        std::u16string location;
        LCID locale;
    };
    std::vector<Text> texts;
    LCID default_locale = 0;
    bool forward_to_parent = false;
    // The device WdfDeviceCreate made from this record (held: the driver may delete it).
    std::shared_ptr<mvgps::wdf::Device> created;
};

namespace mvgps::wdf
{

// How long a device may take to leave D0 before the 0x9F stop (virtual time in tests).
void set_power_watchdog(sched::Nanos timeout);
sched::Nanos power_watchdog();

class ResourceList final : public Object
{
  public:
    explicit ResourceList(std::vector<CM_PARTIAL_RESOURCE_DESCRIPTOR> descriptors)
        : Object(Kind::ResourceList), descriptors_(std::move(descriptors))
    {
    }
    const std::vector<CM_PARTIAL_RESOURCE_DESCRIPTOR>& descriptors() const { return descriptors_; }
    bool driver_may_delete() const override { return false; }

  private:
    std::vector<CM_PARTIAL_RESOURCE_DESCRIPTOR> descriptors_;
};

class Device final : public Object
{
  public:
    enum class Pnp : std::uint8_t { Added, Started, SurpriseRemoved, Failed, Removed };

    explicit Device(const WDFDEVICE_INIT& init);

    // Creates the init record for a function device of `driver`, runs the driver's
    // EvtDriverDeviceAdd with it and returns the device it created.
    static NTSTATUS add(Driver* driver, Device** device);

    const WDFDEVICE_INIT& init() const { return init_; }
    bool is_pdo() const { return init_.pdo; }
    Device* bus_parent() const { return init_.parent; }
    Pnp pnp_state() const;
    DEVICE_POWER_STATE power_state() const;
    bool in_d0() const;

    // ---- Operations of the PnP manager (each on its own thread, one at a time) ------------
    NTSTATUS start(const std::vector<CM_PARTIAL_RESOURCE_DESCRIPTOR>& resources);
    // Moves to D1-D3 (children first) or back to D0 (children after).
    NTSTATUS set_power(DEVICE_POWER_STATE state);
    // Asks the children and then the device whether it may go; a failure is a veto.
    NTSTATUS query_remove();
    // The first of a surprise removal's two events (the later remove() ends it).
    void surprise_remove();
    // Removes the children and then the device, and deletes it.
    void remove();

    // ---- What the PnP manager and clients see ---------------------------------------------
    struct Interface {
        GUID guid;
        std::u16string reference;
        std::u16string link;
    };
    std::vector<Interface> interfaces() const;
    // The device in the object namespace: opening it gives a client's handle.
    std::shared_ptr<io::Device> node();
    ChildList* child_list() const { return child_list_; }
    Queue* default_queue() const;
    // Gives an incoming request to the default queue; fails it when there is none.
    void dispatch(const std::shared_ptr<Request>& request);
    const WDF_DEVICE_STATE& device_state() const { return device_state_; }
    const PNP_BUS_INFORMATION& bus_information() const { return bus_information_; }
    const WDF_DEVICE_PNP_CAPABILITIES& pnp_capabilities() const { return pnp_caps_; }
    const WDF_DEVICE_POWER_CAPABILITIES& power_capabilities() const { return power_caps_; }
    const std::optional<WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS>& idle_settings() const
    {
        return idle_settings_;
    }

    // ---- Framework internals ---------------------------------------------------------------
    void set_default_queue(Queue* queue);
    void attach_child_list(ChildList* list) { child_list_ = list; }
    NTSTATUS add_interface(const GUID& guid, PCUNICODE_STRING reference);
    void set_device_state(const WDF_DEVICE_STATE& state) { device_state_ = state; }
    void set_bus_information(const PNP_BUS_INFORMATION& info) { bus_information_ = info; }
    void set_pnp_capabilities(const WDF_DEVICE_PNP_CAPABILITIES& caps) { pnp_caps_ = caps; }
    void set_power_capabilities(const WDF_DEVICE_POWER_CAPABILITIES& caps) { power_caps_ = caps; }
    void set_idle_settings(const WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS& s) { idle_settings_ = s; }
    // Requests the driver holds (delivered or retrieved, not yet completed or forwarded).
    // Called with the scheduler's state lock held.
    void take_ownership(Request* request);
    void release_ownership(Request* request);
    void ownership_changed();
    // Requests from `queue` the driver holds and that are not cancelled.
    std::vector<std::shared_ptr<Request>> held_from(const Queue* queue);
    // Waits until the driver holds no request from `queue`; false at the deadline, with
    // `held` the number still held.
    bool wait_until_released(const Queue* queue, sched::Nanos deadline, std::size_t* held);
    std::string describe() const;
    HostMutex& work_lock() { return work_lock_; }

    bool driver_may_delete() const override;
    void teardown() override;

  private:
    NTSTATUS enter_d0(WDF_POWER_DEVICE_STATE previous);
    void leave_d0(WDF_POWER_DEVICE_STATE target, bool suspend);
    void stop_power_managed_requests();
    void resume_stopped_requests();
    void release_hardware();
    void purge_queues(bool power_managed);
    void flush_once();
    void set_queues_running(bool running);
    std::vector<Queue*> queues();
    void register_interfaces(bool on);
    void publish(const Interface& i, bool on);
    WDFDEVICE wdf() const { return static_cast<WDFDEVICE>(handle()); }

    WDFDEVICE_INIT init_;
    Pnp pnp_ = Pnp::Added;
    DEVICE_POWER_STATE power_ = PowerDeviceD3;
    WDF_POWER_DEVICE_STATE last_dx_ = WdfPowerDeviceD3Final;
    bool hardware_prepared_ = false; // ReleaseHardware is owed
    bool self_managed_io_ = false;   // SelfManagedIoInit ran: Flush and Cleanup are owed
    bool flushed_ = false;
    ResourceList* raw_ = nullptr;
    ResourceList* translated_ = nullptr;
    ChildList* child_list_ = nullptr;
    Queue* default_queue_ = nullptr;
    std::vector<Interface> interfaces_;
    WDF_DEVICE_STATE device_state_{};
    PNP_BUS_INFORMATION bus_information_{};
    WDF_DEVICE_PNP_CAPABILITIES pnp_caps_{};
    WDF_DEVICE_POWER_CAPABILITIES power_caps_{};
    std::optional<WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS> idle_settings_;
    std::set<Request*> owned_;
    std::shared_ptr<io::Device> node_;
    sched::WaitList drained_;
    HostMutex work_lock_{"device work item"};
};

// The default child list of a bus device.
class ChildList final : public Object
{
  public:
    ChildList(Device* device, const WDF_CHILD_LIST_CONFIG& config)
        : Object(Kind::ChildList), device_(device), config_(config)
    {
    }
    Device* device() const { return device_; }
    NTSTATUS add_or_update_present(const WDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER* id);
    // The PnP manager's hook: called (without locks) when the list changed. Without a hook
    // the list creates its new children at once, on the caller's thread.
    void set_invalidate_hook(std::function<void(ChildList&)> hook);
    // Creates the devices for descriptions that have none yet; returns the new ones.
    std::vector<Device*> enumerate();
    std::vector<Device*> children() const;
    // The parent is going: no more additions or creations.
    void close();
    // The child is gone (removed with its parent).
    void forget(Device* child);
    bool driver_may_delete() const override { return false; }

  private:
    struct Entry {
        std::vector<std::uint8_t> description;
        Device* device = nullptr;
        bool creating = false;
    };

    Device* device_;
    WDF_CHILD_LIST_CONFIG config_;
    std::list<Entry> entries_;
    std::function<void(ChildList&)> hook_;
    bool closed_ = false;
};

} // namespace mvgps::wdf
