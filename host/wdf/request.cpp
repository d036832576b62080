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

std::shared_ptr<Request> Request::incoming(Device* device, Major major, ULONG code, Buffers buffers,
                                           Completion completion)
{
    auto request = std::make_shared<Request>(major, code, buffers, std::move(completion));
    NTSTATUS status = Objects::attach(request, nullptr, device);
    return NT_SUCCESS(status) ? request : nullptr;
}

void Request::finish(NTSTATUS final_status, ULONG_PTR final_information)
{
    Queue* presenter = nullptr;
    {
        sched::StateLock lock(sched::current());
        if (place == Place::Driver && owner_device) {
            owner_device->release_ownership(this);
        }
        if (place == Place::Driver) {
            presenter = presented_by;
        }
        presented_by = nullptr;
        place = Place::Completed;
        status = final_status;
        information = final_information;
        cancel_routine = nullptr;
    }
    if (presenter) {
        presenter->presented_done();
    }
    if (completion_) {
        completion_(final_status, final_information);
    }
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
                place = Place::Driver;
                holder->owner()->take_ownership(this);
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
        if (request->place == Request::Place::Driver) {
            if (request->owner_device) {
                request->owner_device->release_ownership(request.get());
            }
            presenter = request->presented_by;
        }
        request->presented_by = nullptr;
        request->place = Request::Place::Queued;
        request->queue = this;
        request->cancel_routine = nullptr;
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
    if (power_managed_ && !running_) {
        return STATUS_WDF_PAUSED;
    }
    if (pending_.empty()) {
        return STATUS_NO_MORE_ENTRIES;
    }
    std::shared_ptr<Request> request = pending_.front();
    pending_.pop_front();
    request->place = Request::Place::Driver;
    device_->take_ownership(request.get());
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
    request->place = Request::Place::Nowhere;
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
    if (kernel::current_irql() > PASSIVE_LEVEL) {
        // Callbacks run at PASSIVE_LEVEL: a request forwarded under a spin lock is
        // delivered from a framework thread instead.
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
            request->place = Request::Place::Driver;
            request->presented_by = this;
            device_->take_ownership(request.get());
        }
        present(request);
    }
}

void Queue::present(const std::shared_ptr<Request>& request)
{
    const auto& c = config_;
    const auto& b = request->buffers();
    WDFREQUEST r = request->wdf();
    switch (request->major()) {
    case Major::DeviceControl:
        if (c.EvtIoDeviceControl) {
            call_driver("EvtIoDeviceControl", c.EvtIoDeviceControl, wdf(), r, b.output_length,
                        b.input_length, request->code());
            return;
        }
        break;
    case Major::Read:
        if (c.EvtIoRead) {
            call_driver("EvtIoRead", c.EvtIoRead, wdf(), r, b.output_length);
            return;
        }
        break;
    case Major::Write:
        if (c.EvtIoWrite) {
            call_driver("EvtIoWrite", c.EvtIoWrite, wdf(), r, b.input_length);
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
    purge();
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

void Queue::purge()
{
    std::deque<std::shared_ptr<Request>> held;
    {
        sched::StateLock lock(sched::current());
        accepting_ = false;
        held.swap(pending_);
        for (auto& r : held) {
            r->place = Request::Place::Nowhere;
        }
    }
    for (auto& r : held) {
        r->finish(STATUS_CANCELLED, 0);
    }
}

} // namespace mvgps::wdf
