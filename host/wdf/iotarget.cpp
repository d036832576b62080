// I/O targets: a lower device opened by name, and synchronous reads, writes and control
// calls sent to it. A send with a timeout cancels its request when the time is up; a request
// the device then completes as cancelled returns STATUS_IO_TIMEOUT. Sends to a stopped
// target wait for it to start (or for their timeout); a closed target refuses them.
#include <algorithm>
#include <cstring>
#include <vector>

#include "host/kernel/kernel.h"
#include "host/wdf/device.h"
#include "host/wdf/faults.h"
#include "host/wdf/lower_device.h"
#include "host/wdf/request.h"
#include "host/wdf/rules.h"

namespace mvgps::wdf
{
namespace
{

class IoTarget final : public Object
{
  public:
    IoTarget() : Object(Kind::IoTarget) {}

    WDF_IO_TARGET_STATE state = WdfIoTargetClosed;
    std::unique_ptr<io::LowerFile> file;
    std::vector<std::shared_ptr<io::IoRequest>> in_flight;
    sched::WaitList changes;

    void teardown() override { close(); }

    void cancel_and_wait(bool cancel)
    {
        auto& s = sched::current();
        std::vector<std::shared_ptr<io::IoRequest>> sent;
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

    void close()
    {
        {
            sched::StateLock lock(sched::current());
            if (state == WdfIoTargetClosed) {
                return;
            }
            state = WdfIoTargetClosed;
            sched::current().wake(changes);
        }
        cancel_and_wait(true);
        std::unique_ptr<io::LowerFile> closing;
        {
            sched::StateLock lock(sched::current());
            closing = std::move(file);
        }
    }
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
    faults::Op op;
    ULONG code;
    std::span<std::uint8_t> input;
    std::span<std::uint8_t> output;
};

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
    NTSTATUS status = faults::on_send(what.op, what.code);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (options && options->Size != sizeof(WDF_REQUEST_SEND_OPTIONS)) {
        return STATUS_INVALID_PARAMETER;
    }
    bool has_timeout = options && (options->Flags & WDF_REQUEST_SEND_OPTION_TIMEOUT);
    bool ignore_state = options && (options->Flags & WDF_REQUEST_SEND_OPTION_IGNORE_TARGET_STATE);
    sched::Nanos deadline =
        has_timeout ? kernel::deadline_from(&options->Timeout) : sched::kForever;

    // A buffered control call sees one system buffer holding the input, as the I/O manager
    // gives it to the driver below; its output is copied back afterwards.
    bool buffered =
        what.op == faults::Op::Control && METHOD_FROM_CTL_CODE(what.code) == METHOD_BUFFERED;
    std::vector<std::uint8_t> system;
    std::span<const std::uint8_t> down_in = what.input;
    std::span<std::uint8_t> down_out = what.output;
    if (buffered) {
        system.assign(std::max(what.input.size(), what.output.size()), 0);
        std::copy(what.input.begin(), what.input.end(), system.begin());
        down_in = {system.data(), what.input.size()};
        down_out = {system.data(), what.output.size()};
    }
    io::Major major = what.op == faults::Op::Read    ? io::Major::Read
                      : what.op == faults::Op::Write ? io::Major::Write
                                                     : io::Major::DeviceControl;
    auto io = io::IoRequest::make(major, what.code, down_in, down_out);

    auto& s = sched::current();
    io::LowerFile* file = nullptr;
    {
        sched::StateLock lock(s);
        if (request && request->sending) {
            return STATUS_INVALID_DEVICE_STATE;
        }
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
            request->status = io->status();
            request->information = io->information();
        }
    }
    status = io->status();
    std::size_t information = io->information();
    if (timed_out && status == STATUS_CANCELLED) {
        status = STATUS_IO_TIMEOUT;
    }
    if (buffered) {
        std::size_t back = std::min(information, what.output.size());
        std::copy_n(system.begin(), back, what.output.begin());
    }
    if (bytes) {
        *bytes = information;
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
    std::u16string_view name(reinterpret_cast<const char16_t*>(OpenParams->TargetDeviceName.Buffer),
                             OpenParams->TargetDeviceName.Length / sizeof(WCHAR));
    io::OpenParams params;
    params.desired_access = OpenParams->DesiredAccess;
    params.share_access = OpenParams->ShareAccess;
    params.create_disposition = OpenParams->CreateDisposition;
    params.create_options = OpenParams->CreateOptions;
    std::unique_ptr<io::LowerFile> file;
    NTSTATUS status = io::open(name, params, file);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    sched::StateLock lock(sched::current());
    target->file = std::move(file);
    target->state = WdfIoTargetStarted;
    sched::current().wake(target->changes);
    return STATUS_SUCCESS;
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
    {
        sched::StateLock lock(sched::current());
        if (target->state != WdfIoTargetStarted) {
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
    target_of(IoTarget, "WdfIoTargetClose")->close();
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
    Send what{faults::Op::Read, 0, {}, {}};
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
    Send what{faults::Op::Write, 0, {}, {}};
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
    Send what{faults::Op::Control, IoctlCode, {}, {}};
    if (!span_of(InputBuffer, what.input) || !span_of(OutputBuffer, what.output)) {
        return STATUS_INVALID_PARAMETER;
    }
    return send(IoTarget, Request, what, RequestOptions, BytesReturned,
                "WdfIoTargetSendIoctlSynchronously");
}

} // extern "C"
