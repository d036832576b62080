// The devices below the driver: what a framework I/O target opens by name in the host's
// object namespace. A lower device is anything that serves read, write and device-control
// requests asynchronously: the simulated UART controller, or a real serial port behind a
// POSIX tty. It completes each request once, with a status and an information count, from
// any thread, and honours cancellation.
//
// Locking: call every IoRequest member without holding the scheduler's state lock (they take
// it themselves). complete() and cancellation are scheduling points.
#pragma once

#include <wdm.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "host/sched/sched.h"

namespace mvgps::io
{

enum class Major : std::uint8_t { Read, Write, DeviceControl };

// One request sent down to a lower device.
class IoRequest
{
  public:
    using Routine = std::function<void(IoRequest&)>;

    // Buffers: a read fills output(); a write takes input(); a device control has both. For
    // METHOD_BUFFERED codes input and output are views of one system buffer, as the real
    // I/O manager gives them: read all the input before writing any output.
    static std::shared_ptr<IoRequest> make(Major major, ULONG control_code,
                                           std::span<const std::uint8_t> input,
                                           std::span<std::uint8_t> output);

    Major major() const { return major_; }
    ULONG control_code() const { return control_code_; }
    std::span<const std::uint8_t> input() const { return input_; }
    std::span<std::uint8_t> output() const { return output_; }

    // ---- Device side ----------------------------------------------------------------------
    // Installs the routine that cancellation runs (once, on the cancelling thread, without
    // host locks held); it must complete the request, normally with STATUS_CANCELLED and the
    // bytes moved so far. Returns false and installs nothing when the request is already
    // cancelled: complete it now instead.
    bool set_cancel_routine(Routine routine);
    // Takes the routine back before completing. Returns false when cancellation has already
    // taken it: the routine completes the request, not the caller.
    bool clear_cancel_routine();
    bool cancelled() const;
    // The first completion wins; a later one returns false and changes nothing.
    bool complete(NTSTATUS status, std::size_t information);

    // ---- Sender side ----------------------------------------------------------------------
    // Runs after completion on the completing thread, without host locks held. Set it
    // before the request is dispatched.
    void on_completion(Routine routine) { on_completion_ = std::move(routine); }
    // Asks the device to stop the request early. Returns false when it had completed.
    bool cancel();
    // Blocks until the request completes or `deadline` passes; true when it completed.
    bool wait(sched::Nanos deadline);
    bool completed() const;
    NTSTATUS status() const;
    std::size_t information() const;

    IoRequest(Major major, ULONG control_code, std::span<const std::uint8_t> input,
              std::span<std::uint8_t> output)
        : major_(major), control_code_(control_code), input_(input), output_(output)
    {
    }

  private:
    Major major_;
    ULONG control_code_;
    std::span<const std::uint8_t> input_;
    std::span<std::uint8_t> output_;
    Routine cancel_routine_;
    Routine on_completion_;
    bool cancel_requested_ = false;
    bool routine_taken_ = false;
    bool done_ = false;
    NTSTATUS status_ = STATUS_PENDING;
    std::size_t information_ = 0;
    sched::WaitList waiters_;
};

// What an opener asks for (the create parameters of an open by name).
struct OpenParams {
    ACCESS_MASK desired_access = 0;
    ULONG share_access = 0; // 0: exclusive
    ULONG create_disposition = FILE_OPEN;
    ULONG create_options = 0;
};

// One open instance of a lower device. Destroying it closes it; the opener completes or
// cancels everything it sent first, so no request outlives its file.
class LowerFile
{
  public:
    virtual ~LowerFile() = default;
    // Starts one request; the device completes it later or at once, on any thread.
    virtual void dispatch(std::shared_ptr<IoRequest> request) = 0;
};

class LowerDevice
{
  public:
    virtual ~LowerDevice() = default;
    // Opens the device. A device that allows one open at a time fails a second with
    // STATUS_SHARING_VIOLATION.
    virtual NTSTATUS open(const OpenParams& params, std::unique_ptr<LowerFile>& file) = 0;
};

// ---- The host's object namespace ---------------------------------------------------------
// Names compare case-insensitively ("\Device\RESOURCE_HUB\0000000100000002", "\??\COM3").
void bind(std::u16string_view name, std::shared_ptr<LowerDevice> device);
bool unbind(std::u16string_view name);
std::shared_ptr<LowerDevice> lookup(std::u16string_view name);
// Opens a bound device: STATUS_OBJECT_NAME_NOT_FOUND when nothing is bound to the name.
NTSTATUS open(std::u16string_view name, const OpenParams& params, std::unique_ptr<LowerFile>& file);

} // namespace mvgps::io
