#include "host/wdf/request.h"

#include <algorithm>

#include "host/kernel/kernel.h"
#include "host/wdf/device.h"
#include "host/wdf/rules.h"

namespace mvgps::wdf
{

Memory::Memory(POOL_TYPE pool, ULONG tag, std::size_t size)
    : Object(Kind::Memory), buffer_(ExAllocatePoolWithTag(pool, size, tag)), size_(size),
      pool_tag_(tag), owns_(true)
{
}

Memory::~Memory()
{
    if (owns_ && buffer_) {
        ExFreePoolWithTag(buffer_, pool_tag_);
    }
}

Request::Request()
    : Object(Kind::Request), irp_(io::Request::make(io::Major::DeviceControl, 0, {}, {})),
      created_by_driver_(true)
{
    irp_->reuse(STATUS_SUCCESS);
}

std::shared_ptr<Request> Request::incoming(Device* device, std::shared_ptr<io::Request> irp)
{
    auto request = std::make_shared<Request>(irp);
    if (!NT_SUCCESS(Objects::attach(request, nullptr, device))) {
        return nullptr;
    }
    std::weak_ptr<Object> weak = request;
    irp->set_cancel_routine([weak](io::Request&) {
        if (auto held = weak.lock()) {
            static_cast<Request*>(held.get())->cancel();
        }
    });
    return request;
}

std::shared_ptr<io::Request> Request::irp() const
{
    sched::StateLock lock(sched::current());
    return irp_;
}

void Request::set_irp(std::shared_ptr<io::Request> irp)
{
    sched::StateLock lock(sched::current());
    irp_ = std::move(irp);
}

Queue* Request::move_to(Place to, Queue* holder, Queue* presenter)
{
    NT_ASSERT(place != Place::Completed);
    Queue* was_presented_by = nullptr;
    if (place == Place::Driver) {
        if (owner_device) {
            owner_device->release_ownership(this);
        }
        was_presented_by = presented_by;
    }
    place = to;
    presented_by = presenter;
    cancel_routine = nullptr;
    if (holder) {
        queue = holder;
    }
    if (to == Place::Driver) {
        queue->owner()->take_ownership(this);
    }
    return was_presented_by;
}

void Request::finish(NTSTATUS final_status, ULONG_PTR final_information)
{
    // Completing the I/O request wakes its client, who may remove the device, and this
    // object with it, before the object is removed below: it is held until then.
    const std::shared_ptr<Object> self = Objects::hold(this);
    Queue* presenter = nullptr;
    std::shared_ptr<io::Request> irp;
    {
        sched::StateLock lock(sched::current());
        presenter = move_to(Place::Completed, nullptr, nullptr);
        irp = irp_;
    }
    if (presenter) {
        presenter->presented_done();
    }
    irp->complete(final_status, final_information);
    Objects::remove(this, "completed");
}

void Request::cancel()
{
    PFN_WDF_REQUEST_CANCEL routine = nullptr;
    Queue* holder = nullptr;
    {
        sched::StateLock lock(sched::current());
        if (place == Place::Completed || cancelled) {
            return;
        }
        cancelled = true;
        if (place == Place::Queued) {
            holder = queue;
        } else if (place == Place::Driver) {
            routine = cancel_routine;
            cancel_routine = nullptr;
        }
    }
    if (holder && holder->take(this)) {
        auto on_queue = holder->config().EvtIoCanceledOnQueue;
        if (on_queue) {
            {
                sched::StateLock lock(sched::current());
                move_to(Place::Driver, holder, nullptr);
            }
            call_driver("EvtIoCanceledOnQueue", on_queue, holder->wdf(), wdf());
        } else {
            finish(STATUS_CANCELLED, 0);
        }
        return;
    }
    if (routine) {
        call_driver("EvtRequestCancel", routine, wdf());
    }
}

bool Queue::driver_may_delete() const
{
    return !config_.DefaultQueue;
}

bool Queue::can_present() const
{
    if (config_.DispatchType == WdfIoQueueDispatchManual || !running_ || pending_.empty()) {
        return false;
    }
    std::size_t limit = config_.DispatchType == WdfIoQueueDispatchSequential
                            ? 1
                            : config_.Settings.Parallel.NumberOfPresentedRequests;
    return limit == static_cast<ULONG>(-1) || presented_ < limit;
}

NTSTATUS Queue::enqueue(const std::shared_ptr<Request>& request)
{
    Queue* presenter = nullptr;
    {
        sched::StateLock lock(sched::current());
        if (!accepting_) {
            return STATUS_INVALID_DEVICE_STATE;
        }
        presenter = request->move_to(Request::Place::Queued, this, nullptr);
        pending_.push_back(request);
    }
    if (presenter) {
        presenter->presented_done();
    }
    deliver();
    return STATUS_SUCCESS;
}

NTSTATUS Queue::retrieve(WDFREQUEST* out)
{
    sched::StateLock lock(sched::current());
    if (config_.DispatchType == WdfIoQueueDispatchParallel) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    if (power_managed_ && !running_) {
        return STATUS_WDF_PAUSED;
    }
    if (pending_.empty()) {
        return STATUS_NO_MORE_ENTRIES;
    }
    std::shared_ptr<Request> request = pending_.front();
    pending_.pop_front();
    request->move_to(Request::Place::Driver, this, nullptr);
    *out = request->wdf();
    return STATUS_SUCCESS;
}

bool Queue::take(Request* request)
{
    sched::StateLock lock(sched::current());
    auto it = std::find_if(pending_.begin(), pending_.end(),
                           [request](const auto& r) { return r.get() == request; });
    if (it == pending_.end()) {
        return false;
    }
    pending_.erase(it);
    request->move_to(Request::Place::Nowhere, nullptr, nullptr);
    return true;
}

void Queue::set_running(bool running)
{
    {
        sched::StateLock lock(sched::current());
        running_ = running;
    }
    if (running) {
        deliver();
    }
}

void Queue::presented_done()
{
    {
        sched::StateLock lock(sched::current());
        presented_--;
    }
    deliver();
}

void Queue::deliver()
{
    auto& s = sched::current();
    if (kernel::current_irql() > PASSIVE_LEVEL && passive_callbacks()) {
        // Callbacks run inline at the caller's IRQL unless the queue asked for
        // PASSIVE_LEVEL: then a request forwarded under a spin lock is delivered from a
        // framework thread instead.
        bool work;
        {
            sched::StateLock lock(s);
            work = can_present();
        }
        if (work) {
            auto self = std::static_pointer_cast<Queue>(Objects::hold(this));
            sched::Thread* thread = s.spawn("queue delivery", [self] { self->deliver(); });
            sched::StateLock lock(s);
            deliverers_.push_back(thread);
        }
        return;
    }
    for (;;) {
        std::shared_ptr<Request> request;
        {
            sched::StateLock lock(s);
            if (!can_present()) {
                return;
            }
            request = pending_.front();
            pending_.pop_front();
            presented_++;
            request->move_to(Request::Place::Driver, this, this);
        }
        present(request);
    }
}

void Queue::present(const std::shared_ptr<Request>& request)
{
    const auto& c = config_;
    auto irp = request->irp();
    WDFREQUEST r = request->wdf();
    switch (irp->major()) {
    case io::Major::DeviceControl:
        if (c.EvtIoDeviceControl) {
            call_driver("EvtIoDeviceControl", c.EvtIoDeviceControl, wdf(), r, irp->output().size(),
                        irp->input().size(), irp->control_code());
            return;
        }
        break;
    case io::Major::Read:
        if (c.EvtIoRead) {
            call_driver("EvtIoRead", c.EvtIoRead, wdf(), r, irp->output().size());
            return;
        }
        break;
    case io::Major::Write:
        if (c.EvtIoWrite) {
            call_driver("EvtIoWrite", c.EvtIoWrite, wdf(), r, irp->input().size());
            return;
        }
        break;
    }
    if (c.EvtIoDefault) {
        call_driver("EvtIoDefault", c.EvtIoDefault, wdf(), r);
        return;
    }
    request->finish(STATUS_INVALID_DEVICE_REQUEST, 0);
}

void Queue::teardown()
{
    purge(false);
    auto& s = sched::current();
    std::vector<sched::Thread*> threads;
    {
        sched::StateLock lock(s);
        threads.swap(deliverers_);
    }
    for (sched::Thread* t : threads) {
        if (t != s.self()) {
            s.join(t);
        }
    }
}

void Queue::purge(bool wait)
{
    std::deque<std::shared_ptr<Request>> queued;
    {
        sched::StateLock lock(sched::current());
        accepting_ = false;
        queued.swap(pending_);
        for (auto& r : queued) {
            r->move_to(Request::Place::Nowhere, nullptr, nullptr);
        }
    }
    for (auto& r : queued) {
        r->finish(STATUS_CANCELLED, 0);
    }
    // What the driver holds from the queue: a cancelable request is cancelled; the others
    // are announced to EvtIoStop, which is never shown a cancelled request.
    for (const auto& r : device_->held_from(this)) {
        bool cancelable;
        {
            sched::StateLock lock(sched::current());
            cancelable = r->cancel_routine != nullptr;
        }
        if (cancelable) {
            r->cancel();
        } else if (config_.EvtIoStop) {
            call_driver("EvtIoStop", config_.EvtIoStop, wdf(), r->wdf(),
                        static_cast<ULONG>(WdfRequestStopActionPurge));
        }
    }
    std::size_t held = 0;
    if (wait &&
        !device_->wait_until_released(this, sched::current().now() + power_watchdog(), &held)) {
        violation(Rule::RequestLeaked,
                  device_->describe() + ": a queue purge waits for ever, the driver still holds " +
                      std::to_string(held) + " request(s) from it and never completes them",
                  reinterpret_cast<std::uintptr_t>(handle()), held);
    }
}

} // namespace mvgps::wdf
