// I/O targets: a device opened by name in the host's object namespace, and synchronous
// reads, writes and control calls sent to it. A send with a timeout cancels its request when
// the time is up; a request the device then completes as cancelled returns
// STATUS_IO_TIMEOUT. Sends to a stopped target wait for it to start (or for their timeout);
// a closed target refuses them. The target hears its device's removal: a query-remove
// closes it (or asks EvtIoTargetQueryRemove), a cancelled removal opens it again (or tells
// EvtIoTargetRemoveCanceled), and remove-complete closes it for good.
#include <algorithm>
#include <cstring>
#include <vector>

#include "io/names.h"
#include "kernel/kernel.h"
#include "wdf/device.h"
#include "wdf/faults.h"
#include "wdf/request.h"
#include "wdf/rules.h"
#include "wdf/timeout.h"

namespace mvgps::wdf
{
namespace
{

class IoTarget final : public Object
{
  public:
    IoTarget() : Object(Kind::IoTarget) {}

    WDF_IO_TARGET_STATE state = WdfIoTargetClosed;
    std::unique_ptr<io::File> file;
    std::vector<std::shared_ptr<io::Request>> in_flight;
    sched::WaitList changes;
    // What it was opened with, to open it again after a cancelled removal.
    std::u16string name;
    io::OpenParams params;
    WDF_IO_TARGET_OPEN_PARAMS callbacks{};
    std::shared_ptr<io::RemovalListener> listener;

    void teardown() override { close(WdfIoTargetClosed); }

    void cancel_and_wait(bool cancel)
    {
        auto& s = sched::current();
        std::vector<std::shared_ptr<io::Request>> sent;
        {
            sched::StateLock lock(s);
            sent = in_flight;
        }
        if (cancel) {
            for (auto& r : sent) {
                r->cancel();
            }
        }
        sched::StateLock lock(s);
        s.wait(changes, "sent I/O to complete", sched::kForever,
               [this] { return in_flight.empty(); });
    }

    NTSTATUS open()
    {
        std::unique_ptr<io::File> opened;
        NTSTATUS status = io::open(name, params, opened);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        auto device = io::lookup(name);
        io::listen(device.get(), listener);
        sched::StateLock lock(sched::current());
        file = std::move(opened);
        state = WdfIoTargetStarted;
        sched::current().wake(changes);
        return STATUS_SUCCESS;
    }

    // Closes the lower file after what was sent has ended; `how` is the state it leaves.
    void close(WDF_IO_TARGET_STATE how)
    {
        bool open;
        {
            sched::StateLock lock(sched::current());
            open = state == WdfIoTargetStarted || state == WdfIoTargetStopped;
            if (state != WdfIoTargetDeleted) {
                state = how;
            }
            sched::current().wake(changes);
        }
        if (!open) {
            return;
        }
        cancel_and_wait(true);
        std::unique_ptr<io::File> closing;
        {
            sched::StateLock lock(sched::current());
            closing = std::move(file);
        }
    }

    bool closed_for_query_remove()
    {
        sched::StateLock lock(sched::current());
        return state == WdfIoTargetClosedForQueryRemove;
    }

    WDFIOTARGET wdf() const { return static_cast<WDFIOTARGET>(handle()); }
};

// Carries the device's removal to the target while the target lives.
class RemovalListener final : public io::RemovalListener
{
  public:
    explicit RemovalListener(IoTarget* target) : target_(target->weak_from_this()) {}

    NTSTATUS query_remove() override
    {
        auto target = held();
        if (!target) {
            return STATUS_SUCCESS;
        }
        if (auto query = target->callbacks.EvtIoTargetQueryRemove) {
            return call_driver("EvtIoTargetQueryRemove", query, target->wdf());
        }
        target->close(WdfIoTargetClosedForQueryRemove);
        return STATUS_SUCCESS;
    }

    void remove_cancelled() override
    {
        auto target = held();
        if (!target) {
            return;
        }
        if (auto cancelled = target->callbacks.EvtIoTargetRemoveCanceled) {
            call_driver("EvtIoTargetRemoveCanceled", cancelled, target->wdf());
        } else if (target->closed_for_query_remove()) {
            target->open();
        }
    }

    // Closed for good whether or not the driver has a callback: the device is gone.
    void remove_complete() override
    {
        auto target = held();
        if (!target) {
            return;
        }
        if (auto complete = target->callbacks.EvtIoTargetRemoveComplete) {
            call_driver("EvtIoTargetRemoveComplete", complete, target->wdf());
        }
        target->close(WdfIoTargetDeleted);
    }

  private:
    std::shared_ptr<IoTarget> held() const
    {
        return std::static_pointer_cast<IoTarget>(target_.lock());
    }
    std::weak_ptr<Object> target_;
};

IoTarget* target_of(WDFIOTARGET handle, const char* call)
{
    return Objects::get<IoTarget>(handle, Kind::IoTarget, call);
}

// A memory descriptor as a byte span; false for one the host cannot take.
bool span_of(const WDF_MEMORY_DESCRIPTOR* d, std::span<std::uint8_t>& out)
{
    out = {};
    if (!d) {
        return true;
    }
    switch (d->Type) {
    case WdfMemoryDescriptorTypeBuffer:
        out = {static_cast<std::uint8_t*>(d->u.BufferType.Buffer), d->u.BufferType.Length};
        return d->u.BufferType.Buffer || d->u.BufferType.Length == 0;
    case WdfMemoryDescriptorTypeHandle: {
        auto* memory =
            Objects::get<Memory>(d->u.HandleType.Memory, Kind::Memory, "WDF_MEMORY_DESCRIPTOR");
        std::size_t offset = 0;
        std::size_t length = memory->size();
        if (const WDFMEMORY_OFFSET* o = d->u.HandleType.Offsets) {
            if (o->BufferOffset > memory->size() ||
                o->BufferLength > memory->size() - o->BufferOffset) {
                return false;
            }
            offset = o->BufferOffset;
            length = o->BufferLength ? o->BufferLength : memory->size() - offset;
        }
        out = {static_cast<std::uint8_t*>(memory->buffer()) + offset, length};
        return true;
    }
    default:
        return false;
    }
}

struct Send {
    io::Major major;
    ULONG code;
    std::span<std::uint8_t> input;
    std::span<std::uint8_t> output;
};

faults::Op fault_op(io::Major major)
{
    switch (major) {
    case io::Major::Read:
        return faults::Op::Read;
    case io::Major::Write:
        return faults::Op::Write;
    default:
        return faults::Op::Control;
    }
}

NTSTATUS send(WDFIOTARGET handle, WDFREQUEST request_handle, const Send& what,
              const WDF_REQUEST_SEND_OPTIONS* options, PULONG_PTR bytes, const char* call)
{
    IoTarget* target = target_of(handle, call);
    if (bytes) {
        *bytes = 0;
    }
    KIRQL irql = kernel::current_irql();
    if (irql != PASSIVE_LEVEL) {
        violation(Rule::SyncSendIrql,
                  std::string(call) + " above PASSIVE_LEVEL (IRQL " + std::to_string(irql) + ")",
                  irql);
    }
    Request* request = nullptr;
    if (request_handle) {
        request = Objects::get<Request>(request_handle, Kind::Request, call);
    }
    NTSTATUS status = faults::on_send(fault_op(what.major), what.code);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (options && options->Size != sizeof(WDF_REQUEST_SEND_OPTIONS)) {
        return STATUS_INVALID_PARAMETER;
    }
    // A timeout of 0 is no timeout at all, as the real framework reads it.
    bool has_timeout =
        options && (options->Flags & WDF_REQUEST_SEND_OPTION_TIMEOUT) && options->Timeout != 0;
    bool ignore_state = options && (options->Flags & WDF_REQUEST_SEND_OPTION_IGNORE_TARGET_STATE);
    sched::Nanos deadline = has_timeout ? deadline_from(&options->Timeout) : sched::kForever;

    auto& s = sched::current();
    bool in_flight;
    {
        sched::StateLock lock(s);
        in_flight = request && request->sending;
    }
    if (in_flight) {
        violation(Rule::RequestInFlight, std::string(call) + " with a request still in flight",
                  reinterpret_cast<std::uintptr_t>(request_handle));
    }
    auto io = io::Request::make(what.major, what.code, what.input, what.output);
    io::File* file = nullptr;
    {
        sched::StateLock lock(s);
        auto ready = [&] { return target->state != WdfIoTargetStopped || ignore_state; };
        if (s.wait(target->changes, "I/O target to start", deadline, ready) ==
            sched::WaitResult::TimedOut) {
            return STATUS_IO_TIMEOUT;
        }
        if (target->state != WdfIoTargetStarted &&
            !(ignore_state && target->state == WdfIoTargetStopped)) {
            return STATUS_INVALID_DEVICE_STATE;
        }
        file = target->file.get();
        target->in_flight.push_back(io);
        if (request) {
            request->sending = true;
        }
    }
    if (request) {
        request->set_irp(io);
    }
    file->dispatch(io);
    bool timed_out = !io->wait(deadline);
    if (timed_out) {
        io->cancel();
        io->wait(sched::kForever);
    }
    {
        sched::StateLock lock(s);
        auto& f = target->in_flight;
        f.erase(std::remove(f.begin(), f.end(), io), f.end());
        s.wake(target->changes);
        if (request) {
            request->sending = false;
        }
    }
    status = io->status();
    if (timed_out && status == STATUS_CANCELLED) {
        status = STATUS_IO_TIMEOUT;
    }
    if (bytes) {
        *bytes = io->information();
    }
    return status;
}

} // namespace
} // namespace mvgps::wdf

using namespace mvgps;
using namespace mvgps::wdf;

extern "C" {

NTSTATUS WdfIoTargetCreate(WDFDEVICE Device, PWDF_OBJECT_ATTRIBUTES IoTargetAttributes,
                           WDFIOTARGET* IoTarget)
{
    auto* device = Objects::get<wdf::Device>(Device, Kind::Device, "WdfIoTargetCreate");
    if (!IoTarget) {
        return STATUS_INVALID_PARAMETER;
    }
    *IoTarget = nullptr;
    auto target = std::make_shared<wdf::IoTarget>();
    NTSTATUS status = Objects::attach(target, IoTargetAttributes, device);
    if (NT_SUCCESS(status)) {
        *IoTarget = static_cast<WDFIOTARGET>(target->handle());
    }
    return status;
}

NTSTATUS WdfIoTargetOpen(WDFIOTARGET IoTarget, PWDF_IO_TARGET_OPEN_PARAMS OpenParams)
{
    wdf::IoTarget* target = target_of(IoTarget, "WdfIoTargetOpen");
    if (!OpenParams || OpenParams->Size != sizeof(WDF_IO_TARGET_OPEN_PARAMS) ||
        OpenParams->Type != WdfIoTargetOpenByName || !OpenParams->TargetDeviceName.Buffer) {
        return STATUS_INVALID_PARAMETER;
    }
    {
        sched::StateLock lock(sched::current());
        if (target->state != WdfIoTargetClosed) {
            return STATUS_INVALID_DEVICE_STATE;
        }
    }
    target->name.assign(reinterpret_cast<const char16_t*>(OpenParams->TargetDeviceName.Buffer),
                        OpenParams->TargetDeviceName.Length / sizeof(WCHAR));
    target->params.desired_access = OpenParams->DesiredAccess;
    target->params.share_access = OpenParams->ShareAccess;
    target->params.create_disposition = OpenParams->CreateDisposition;
    target->params.create_options = OpenParams->CreateOptions;
    target->callbacks = *OpenParams;
    if (!target->listener) {
        target->listener = std::make_shared<wdf::RemovalListener>(target);
    }
    return target->open();
}

NTSTATUS WdfIoTargetStart(WDFIOTARGET IoTarget)
{
    wdf::IoTarget* target = target_of(IoTarget, "WdfIoTargetStart");
    auto& s = sched::current();
    {
        sched::StateLock lock(s);
        if (target->state == WdfIoTargetClosed) {
            return STATUS_INVALID_DEVICE_STATE;
        }
        target->state = WdfIoTargetStarted;
        s.wake(target->changes);
    }
    s.point("I/O target start");
    return STATUS_SUCCESS;
}

VOID WdfIoTargetStop(WDFIOTARGET IoTarget, WDF_IO_TARGET_SENT_IO_ACTION Action)
{
    wdf::IoTarget* target = target_of(IoTarget, "WdfIoTargetStop");
    // Stopping a stopped target still cancels and waits for what is in flight (a send
    // made with the ignore-state option).
    {
        sched::StateLock lock(sched::current());
        if (target->state != WdfIoTargetStarted && target->state != WdfIoTargetStopped) {
            return;
        }
        target->state = WdfIoTargetStopped;
    }
    if (Action != WdfIoTargetLeaveSentIoPending) {
        target->cancel_and_wait(Action == WdfIoTargetCancelSentIo);
    }
}

VOID WdfIoTargetClose(WDFIOTARGET IoTarget)
{
    target_of(IoTarget, "WdfIoTargetClose")->close(WdfIoTargetClosed);
}

VOID WdfIoTargetCloseForQueryRemove(WDFIOTARGET IoTarget)
{
    target_of(IoTarget, "WdfIoTargetCloseForQueryRemove")->close(WdfIoTargetClosedForQueryRemove);
}

WDF_IO_TARGET_STATE WdfIoTargetGetState(WDFIOTARGET IoTarget)
{
    wdf::IoTarget* target = target_of(IoTarget, "WdfIoTargetGetState");
    sched::StateLock lock(sched::current());
    return target->state;
}

NTSTATUS WdfIoTargetSendReadSynchronously(WDFIOTARGET IoTarget, WDFREQUEST Request,
                                          PWDF_MEMORY_DESCRIPTOR OutputBuffer,
                                          PLONGLONG DeviceOffset,
                                          PWDF_REQUEST_SEND_OPTIONS RequestOptions,
                                          PULONG_PTR BytesRead)
{
    UNREFERENCED_PARAMETER(DeviceOffset);
    Send what{io::Major::Read, 0, {}, {}};
    if (!span_of(OutputBuffer, what.output)) {
        return STATUS_INVALID_PARAMETER;
    }
    return send(IoTarget, Request, what, RequestOptions, BytesRead,
                "WdfIoTargetSendReadSynchronously");
}

NTSTATUS WdfIoTargetSendWriteSynchronously(WDFIOTARGET IoTarget, WDFREQUEST Request,
                                           PWDF_MEMORY_DESCRIPTOR InputBuffer,
                                           PLONGLONG DeviceOffset,
                                           PWDF_REQUEST_SEND_OPTIONS RequestOptions,
                                           PULONG_PTR BytesWritten)
{
    UNREFERENCED_PARAMETER(DeviceOffset);
    Send what{io::Major::Write, 0, {}, {}};
    if (!span_of(InputBuffer, what.input)) {
        return STATUS_INVALID_PARAMETER;
    }
    return send(IoTarget, Request, what, RequestOptions, BytesWritten,
                "WdfIoTargetSendWriteSynchronously");
}

NTSTATUS WdfIoTargetSendIoctlSynchronously(WDFIOTARGET IoTarget, WDFREQUEST Request,
                                           ULONG IoctlCode, PWDF_MEMORY_DESCRIPTOR InputBuffer,
                                           PWDF_MEMORY_DESCRIPTOR OutputBuffer,
                                           PWDF_REQUEST_SEND_OPTIONS RequestOptions,
                                           PULONG_PTR BytesReturned)
{
    Send what{io::Major::DeviceControl, IoctlCode, {}, {}};
    if (!span_of(InputBuffer, what.input) || !span_of(OutputBuffer, what.output)) {
        return STATUS_INVALID_PARAMETER;
    }
    return send(IoTarget, Request, what, RequestOptions, BytesReturned,
                "WdfIoTargetSendIoctlSynchronously");
}

} // extern "C"
