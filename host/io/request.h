// The one model of an I/O request, as the I/O manager's request packet is on Windows: what
// a client sends to a framework device, what the framework sends down to a lower device,
// and what a driver creates for its own sends. It carries its major function, control code
// and buffers, and it is the one place where a request changes state: it is completed once,
// with a status and an information count, from any thread, and it honours cancellation.
//
// Buffers: a read fills output(); a write takes input(); a device control has both. For a
// METHOD_BUFFERED control code the request owns one system buffer of max(input, output)
// bytes holding a copy of the caller's input, as the I/O manager gives it to the driver
// (read all the input before writing any output); at completion the first `information`
// bytes of it go back to the caller's output. Other methods carry the caller's buffers.
//
// Locking: call every member without holding the scheduler's state lock (they take it
// themselves). complete() and cancellation are scheduling points.
#pragma once

#include <wdm.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

#include "sched/sched.h"

namespace mvgps::io
{

enum class Major : std::uint8_t { Read, Write, DeviceControl };

class Request
{
  public:
    using Routine = std::function<void(Request&)>;

    // The caller's buffers must outlive the request.
    static std::shared_ptr<Request> make(Major major, ULONG control_code,
                                         std::span<const std::uint8_t> input,
                                         std::span<std::uint8_t> output);
    Request(Major major, ULONG control_code, std::span<const std::uint8_t> input,
            std::span<std::uint8_t> output);

    Major major() const { return major_; }
    ULONG control_code() const { return control_code_; }
    // What the driver that serves the request sees.
    std::span<std::uint8_t> input() const { return input_; }
    std::span<std::uint8_t> output() const { return output_; }
    // METHOD_NEITHER: the buffers are the caller's, which a framework driver cannot take.
    bool user_buffers() const;

    // ---- Serving side ---------------------------------------------------------------------
    // Installs the routine that cancellation runs (once, on the cancelling thread, without
    // host locks held); it must see that the request completes, normally with
    // STATUS_CANCELLED and the bytes moved so far. Returns false and installs nothing when
    // the request is already cancelled: complete it now instead.
    bool set_cancel_routine(Routine routine);
    // Takes the routine back before completing. Returns false when cancellation has already
    // taken it: the routine completes the request, not the caller.
    bool clear_cancel_routine();
    bool cancelled() const;
    // The information count a later complete() reports unless it gives its own.
    void set_information(std::size_t information);
    // The first completion wins; a later one returns false and changes nothing.
    bool complete(NTSTATUS status);
    bool complete(NTSTATUS status, std::size_t information);

    // ---- Sending side ---------------------------------------------------------------------
    // Asks whoever serves it to stop early. Returns false when it had completed.
    bool cancel();
    // Blocks until the request completes or `deadline` passes; true when it completed.
    bool wait(sched::Nanos deadline);
    bool completed() const;
    NTSTATUS status() const;
    std::size_t information() const;
    // Makes a completed request ready to be sent again, with `status` as its status until then.
    void reuse(NTSTATUS status);

  private:
    Major major_;
    ULONG control_code_;
    std::vector<std::uint8_t> system_; // METHOD_BUFFERED only
    std::span<std::uint8_t> caller_output_;
    std::span<std::uint8_t> input_;
    std::span<std::uint8_t> output_;
    Routine cancel_routine_;
    bool cancel_requested_ = false;
    bool routine_taken_ = false;
    bool done_ = false;
    NTSTATUS status_ = STATUS_PENDING;
    std::size_t information_ = 0;
    sched::WaitList waiters_;
};

} // namespace mvgps::io
