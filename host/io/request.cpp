#include "io/request.h"

#include <algorithm>

namespace mvgps::io
{

std::shared_ptr<Request> Request::make(Major major, ULONG control_code,
                                       std::span<const std::uint8_t> input,
                                       std::span<std::uint8_t> output)
{
    return std::make_shared<Request>(major, control_code, input, output);
}

Request::Request(Major major, ULONG control_code, std::span<const std::uint8_t> input,
                 std::span<std::uint8_t> output)
    : major_(major), control_code_(control_code), caller_output_(output),
      // Whoever serves the request only reads its input; the span is writable because a
      // buffered request's input and output are one buffer.
      input_(const_cast<std::uint8_t*>(input.data()), input.size()), output_(output)
{
    if (major == Major::DeviceControl && METHOD_FROM_CTL_CODE(control_code) == METHOD_BUFFERED) {
        system_.assign(std::max(input.size(), output.size()), 0);
        std::copy(input.begin(), input.end(), system_.begin());
        input_ = std::span(system_).first(input.size());
        output_ = std::span(system_).first(output.size());
    }
}

bool Request::user_buffers() const
{
    return major_ == Major::DeviceControl && METHOD_FROM_CTL_CODE(control_code_) == METHOD_NEITHER;
}

bool Request::set_cancel_routine(Routine routine)
{
    sched::StateLock lock(sched::current());
    if (cancel_requested_ || done_) {
        return false;
    }
    cancel_routine_ = std::move(routine);
    return true;
}

bool Request::clear_cancel_routine()
{
    sched::StateLock lock(sched::current());
    if (routine_taken_) {
        return false;
    }
    cancel_routine_ = nullptr;
    return true;
}

bool Request::cancelled() const
{
    sched::StateLock lock(sched::current());
    return cancel_requested_;
}

void Request::set_information(std::size_t information)
{
    sched::StateLock lock(sched::current());
    information_ = information;
}

bool Request::complete(NTSTATUS status)
{
    std::size_t information;
    {
        sched::StateLock lock(sched::current());
        information = information_;
    }
    return complete(status, information);
}

bool Request::complete(NTSTATUS status, std::size_t information)
{
    // Who completes a request vouches for the count: the framework's verifier stops a
    // driver that claims more, so there is nothing to clamp here.
    NT_ASSERT(information <= (major_ == Major::Write ? input_.size() : output_.size()));
    auto& s = sched::current();
    {
        sched::StateLock lock(s);
        if (done_) {
            return false;
        }
        if (!system_.empty()) {
            std::copy_n(system_.begin(), information, caller_output_.begin());
        }
        done_ = true;
        status_ = status;
        information_ = information;
        cancel_routine_ = nullptr;
        s.wake(waiters_);
    }
    s.point("I/O completion");
    return true;
}

bool Request::cancel()
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

bool Request::wait(sched::Nanos deadline)
{
    auto& s = sched::current();
    sched::StateLock lock(s);
    return s.wait(waiters_, "I/O request", deadline, [this] { return done_; }) ==
           sched::WaitResult::Ready;
}

bool Request::completed() const
{
    sched::StateLock lock(sched::current());
    return done_;
}

NTSTATUS Request::status() const
{
    sched::StateLock lock(sched::current());
    return status_;
}

std::size_t Request::information() const
{
    sched::StateLock lock(sched::current());
    return information_;
}

void Request::reuse(NTSTATUS status)
{
    sched::StateLock lock(sched::current());
    done_ = false;
    cancel_requested_ = false;
    routine_taken_ = false;
    cancel_routine_ = nullptr;
    status_ = status;
    information_ = 0;
}

} // namespace mvgps::io
