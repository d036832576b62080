#include "host/wdf/lower_device.h"

#include <map>
#include <mutex>

#include "host/wdf/fold.h"

namespace mvgps::io
{

std::shared_ptr<IoRequest> IoRequest::make(Major major, ULONG control_code,
                                           std::span<const std::uint8_t> input,
                                           std::span<std::uint8_t> output)
{
    return std::make_shared<IoRequest>(major, control_code, input, output);
}

bool IoRequest::set_cancel_routine(Routine routine)
{
    sched::StateLock lock(sched::current());
    if (cancel_requested_ || done_) {
        return false;
    }
    cancel_routine_ = std::move(routine);
    return true;
}

bool IoRequest::clear_cancel_routine()
{
    sched::StateLock lock(sched::current());
    if (routine_taken_) {
        return false;
    }
    cancel_routine_ = nullptr;
    return true;
}

bool IoRequest::cancelled() const
{
    sched::StateLock lock(sched::current());
    return cancel_requested_;
}

bool IoRequest::complete(NTSTATUS status, std::size_t information)
{
    auto& s = sched::current();
    Routine done;
    {
        sched::StateLock lock(s);
        if (done_) {
            return false;
        }
        done_ = true;
        status_ = status;
        information_ = information;
        cancel_routine_ = nullptr;
        done = std::move(on_completion_);
        s.wake(waiters_);
    }
    if (done) {
        done(*this);
    }
    s.point("I/O completion");
    return true;
}

bool IoRequest::cancel()
{
    Routine routine;
    {
        sched::StateLock lock(sched::current());
        if (done_ || cancel_requested_) {
            return !done_;
        }
        cancel_requested_ = true;
        routine = std::move(cancel_routine_);
        cancel_routine_ = nullptr;
        routine_taken_ = static_cast<bool>(routine);
    }
    if (routine) {
        routine(*this);
    }
    return true;
}

bool IoRequest::wait(sched::Nanos deadline)
{
    auto& s = sched::current();
    sched::StateLock lock(s);
    return s.wait(waiters_, "I/O request", deadline, [this] { return done_; }) ==
           sched::WaitResult::Ready;
}

bool IoRequest::completed() const
{
    sched::StateLock lock(sched::current());
    return done_;
}

NTSTATUS IoRequest::status() const
{
    sched::StateLock lock(sched::current());
    return status_;
}

std::size_t IoRequest::information() const
{
    sched::StateLock lock(sched::current());
    return information_;
}

namespace
{

// The namespace changes only while tests set up or tear down their world, never across a
// scheduling point, so a plain mutex guards it.
struct Namespace {
    std::mutex lock;
    std::map<std::u16string, std::shared_ptr<LowerDevice>> names;
};

Namespace& names()
{
    static Namespace ns;
    return ns;
}

} // namespace

void bind(std::u16string_view name, std::shared_ptr<LowerDevice> device)
{
    std::lock_guard lock(names().lock);
    names().names[fold(name)] = std::move(device);
}

bool unbind(std::u16string_view name)
{
    std::lock_guard lock(names().lock);
    return names().names.erase(fold(name)) != 0;
}

std::shared_ptr<LowerDevice> lookup(std::u16string_view name)
{
    std::lock_guard lock(names().lock);
    auto it = names().names.find(fold(name));
    return it == names().names.end() ? nullptr : it->second;
}

NTSTATUS open(std::u16string_view name, const OpenParams& params, std::unique_ptr<LowerFile>& file)
{
    auto device = lookup(name);
    if (!device) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    return device->open(params, file);
}

} // namespace mvgps::io
