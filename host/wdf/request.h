// Queues, requests and memory objects. A request is always in exactly one place: in a
// queue (the queue's), with the driver (delivered or retrieved), or completed. The driver
// may complete only what it holds; completing twice stops the run.
#pragma once

#include <wdf.h>

#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include "io/request.h"
#include "sched/sched.h"
#include "wdf/object.h"

namespace mvgps::wdf
{

class Device;
class Queue;

class Memory final : public Object
{
  public:
    // A view of someone else's buffer (preallocated, or a request's buffer).
    Memory(void* buffer, std::size_t size) : Object(Kind::Memory), buffer_(buffer), size_(size) {}
    // Pool the memory object owns and frees with itself.
    Memory(POOL_TYPE pool, ULONG tag, std::size_t size);
    ~Memory() override;
    void* buffer() const { return buffer_; }
    std::size_t size() const { return size_; }

  private:
    void* buffer_;
    std::size_t size_;
    ULONG pool_tag_ = 0;
    bool owns_ = false;
};

// The framework's request object around one I/O request: an incoming one, or one the
// driver made for its own sends (formatted anew by each send).
class Request final : public Object
{
  public:
    enum class Place : std::uint8_t { Nowhere, Queued, Driver, Completed };

    // A request the driver made with WdfRequestCreate.
    Request();
    explicit Request(std::shared_ptr<io::Request> irp) : Object(Kind::Request), irp_(std::move(irp))
    {
    }

    // A request arriving for `device`; cancelling `irp` cancels it.
    static std::shared_ptr<Request> incoming(Device* device, std::shared_ptr<io::Request> irp);

    // The I/O request it carries now (a driver-made request's changes with each send).
    std::shared_ptr<io::Request> irp() const;
    void set_irp(std::shared_ptr<io::Request> irp);
    bool created_by_driver() const { return created_by_driver_; }
    WDFREQUEST wdf() const { return static_cast<WDFREQUEST>(handle()); }

    // Cancellation asked by the sender (CancelIo, or its handle closing).
    void cancel();

    // ---- Framework internals (state under the scheduler's state lock) ----------------------
    Place place = Place::Nowhere;
    Queue* queue = nullptr;         // the queue holding it, or that delivered it
    Queue* presented_by = nullptr;  // the dispatching queue that presented it
    Device* owner_device = nullptr; // whose accounting holds it while the driver has it
    bool cancelled = false;
    bool stop_acknowledged = false;
    bool sending = false; // a driver-made request in a synchronous send
    PFN_WDF_REQUEST_CANCEL cancel_routine = nullptr;
    Memory* input_memory = nullptr;
    Memory* output_memory = nullptr;

    // The one place where the framework moves a request, with the state lock held. Leaving
    // the driver ends the device's ownership and returns the queue that had presented it
    // (the caller tells that queue, without the lock); entering the driver gives it to the
    // device of its queue (`holder`, when it changes). Any move drops its cancel routine.
    Queue* move_to(Place to, Queue* holder, Queue* presenter);
    // Completes it (the caller checked ownership) and deletes the object.
    void finish(NTSTATUS status, ULONG_PTR information);
    bool driver_may_delete() const override { return created_by_driver_; }

  private:
    std::shared_ptr<io::Request> irp_;
    bool created_by_driver_ = false;
};

class Queue final : public Object
{
  public:
    Queue(Device* device, const WDF_IO_QUEUE_CONFIG& config, bool power_managed)
        : Object(Kind::Queue), device_(device), config_(config), power_managed_(power_managed)
    {
    }

    Device* owner() const { return device_; }
    const WDF_IO_QUEUE_CONFIG& config() const { return config_; }
    bool power_managed() const { return power_managed_; }
    WDFQUEUE wdf() const { return static_cast<WDFQUEUE>(handle()); }

    // Takes a request (from the I/O manager or forwarded) and delivers what it can.
    NTSTATUS enqueue(const std::shared_ptr<Request>& request);
    NTSTATUS retrieve(WDFREQUEST* request);
    // Power-managed queues run only in D0.
    void set_running(bool running);
    // Delivers queued requests while the queue may present more.
    void deliver();
    // Refuses new requests, completes the queued ones with STATUS_CANCELLED, cancels those
    // the driver holds as cancelable and, with `wait`, waits until the driver holds none
    // from it. Stricter than Windows, where such a purge hangs for ever: a driver that never
    // lets go stops the run once the power watchdog expires.
    void purge(bool wait);
    // A request it delivered is no longer with the driver.
    void presented_done();
    // Takes a queued request out for cancellation; false when it is not in this queue.
    bool take(Request* request);

    bool driver_may_delete() const override;
    void teardown() override;

  private:
    bool can_present() const;
    void present(const std::shared_ptr<Request>& request);

    Device* device_;
    WDF_IO_QUEUE_CONFIG config_;
    bool power_managed_;
    bool running_ = false;
    bool accepting_ = true;
    std::size_t presented_ = 0;
    std::deque<std::shared_ptr<Request>> pending_;
    std::vector<sched::Thread*> deliverers_;
};

} // namespace mvgps::wdf
