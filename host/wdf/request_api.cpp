// The driver-facing calls on queues, requests and memory objects.
#include <cstring>

#include "wdf/device.h"
#include "wdf/driver.h"
#include "wdf/request.h"
#include "wdf/rules.h"

using namespace mvgps;
using namespace mvgps::wdf;

namespace
{

Request* request_of(WDFREQUEST handle, const char* call)
{
    return Objects::get<Request>(handle, Kind::Request, call);
}

Queue* queue_of(WDFQUEUE handle, const char* call)
{
    return Objects::get<Queue>(handle, Kind::Queue, call);
}

// The driver may complete or forward only a request it holds.
Request* held_request(WDFREQUEST handle, const char* call)
{
    const char* how = Objects::tombstone(handle);
    if (how && std::strcmp(how, "completed") == 0) {
        violation(Rule::DoubleCompletion,
                  std::string("request completed twice (") + call + " on a completed request)",
                  reinterpret_cast<std::uintptr_t>(handle));
    }
    Request* request = request_of(handle, call);
    Request::Place place;
    {
        sched::StateLock lock(sched::current());
        place = request->place;
    }
    if (place != Request::Place::Driver || request->created_by_driver()) {
        violation(Rule::RequestNotOwned,
                  std::string(call) + " on a request the driver does not own (" +
                      (request->created_by_driver()      ? "it made it; delete it instead"
                       : place == Request::Place::Queued ? "it is in a queue"
                                                         : "it is not with the driver") +
                      ")",
                  reinterpret_cast<std::uintptr_t>(handle));
    }
    return request;
}

// The real framework's verifier checks at completion: the request must no longer be
// cancelable, and it may not report more bytes than its buffer holds (whatever the status).
// Stricter than Windows: a cancelable completion there only breaks into an attached
// debugger; here it stops the run like the other.
// The real framework's verifier checks at completion: the request must no longer be
// cancelable, and it may not report more bytes than its buffer holds (whatever the status).
// Stricter than Windows: a cancelable completion there only breaks into an attached
// debugger; here it stops the run like the other.
void complete(WDFREQUEST handle, NTSTATUS status, const ULONG_PTR* information, const char* call)
{
    Request* request = held_request(handle, call);
    bool cancelable;
    {
        sched::StateLock lock(sched::current());
        cancelable = request->cancel_routine != nullptr;
    }
    if (cancelable) {
        violation(Rule::CompletedCancelable,
                  std::string(call) + " on a request still marked cancelable (unmark it first)",
                  reinterpret_cast<std::uintptr_t>(handle));
    }
    auto irp = request->irp();
    ULONG_PTR told = information ? *information : irp->information();
    std::size_t room =
        irp->major() == io::Major::Write ? irp->input().size() : irp->output().size();
    if (told > room) {
        violation(Rule::InformationTooLarge,
                  std::string(call) + " with Information " + std::to_string(told) +
                      " larger than the request's buffer of " + std::to_string(room) + " bytes",
                  reinterpret_cast<std::uintptr_t>(handle), told, room);
    }
    request->finish(status, told);
}

NTSTATUS memory_of(Request* request, bool input, WDFMEMORY* memory)
{
    if (!memory) {
        return STATUS_INVALID_PARAMETER;
    }
    *memory = nullptr;
    auto irp = request->irp();
    if (request->created_by_driver() || irp->user_buffers() ||
        (input && irp->major() == io::Major::Read) ||
        (!input && irp->major() == io::Major::Write)) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    std::span<std::uint8_t> buffer = input ? irp->input() : irp->output();
    if (buffer.empty()) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    Memory*& cached = input ? request->input_memory : request->output_memory;
    if (!cached) {
        auto view = std::make_shared<Memory>(buffer.data(), buffer.size());
        NTSTATUS status = Objects::attach(view, nullptr, request);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        cached = view.get();
    }
    *memory = static_cast<WDFMEMORY>(cached->handle());
    return STATUS_SUCCESS;
}

NTSTATUS buffer_of(Request* request, bool input, size_t minimum, PVOID* buffer, size_t* length)
{
    WDFMEMORY memory;
    NTSTATUS status = memory_of(request, input, &memory);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    auto* view = Objects::get<Memory>(memory, Kind::Memory, "request buffer");
    if (view->size() < minimum) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    if (buffer) {
        *buffer = view->buffer();
    }
    if (length) {
        *length = view->size();
    }
    return STATUS_SUCCESS;
}

} // namespace

extern "C" {

NTSTATUS WdfIoQueueCreate(WDFDEVICE Device, PWDF_IO_QUEUE_CONFIG Config,
                          PWDF_OBJECT_ATTRIBUTES QueueAttributes, WDFQUEUE* Queue)
{
    auto* device = Objects::get<wdf::Device>(Device, Kind::Device, "WdfIoQueueCreate");
    if (Queue) {
        *Queue = nullptr;
    }
    if (!Config || Config->Size != sizeof(WDF_IO_QUEUE_CONFIG) ||
        Config->DispatchType <= WdfIoQueueDispatchInvalid ||
        Config->DispatchType >= WdfIoQueueDispatchMax) {
        return STATUS_INVALID_PARAMETER;
    }
    if (Config->DefaultQueue && device->default_queue()) {
        return STATUS_INVALID_DEVICE_STATE;
    }
    // Power-managed unless the driver says otherwise, a child's queues included.
    bool power_managed = Config->PowerManaged != WdfFalse;
    auto queue = std::make_shared<wdf::Queue>(device, *Config, power_managed);
    NTSTATUS status = Objects::attach(queue, QueueAttributes, device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (Config->DefaultQueue) {
        device->set_default_queue(queue.get());
    }
    queue->set_running(!power_managed || device->in_d0());
    if (Queue) {
        *Queue = queue->wdf();
    }
    return STATUS_SUCCESS;
}

WDFDEVICE WdfIoQueueGetDevice(WDFQUEUE Queue)
{
    return static_cast<WDFDEVICE>(queue_of(Queue, "WdfIoQueueGetDevice")->owner()->handle());
}

NTSTATUS WdfIoQueueRetrieveNextRequest(WDFQUEUE Queue, WDFREQUEST* OutRequest)
{
    wdf::Queue* queue = queue_of(Queue, "WdfIoQueueRetrieveNextRequest");
    if (!OutRequest) {
        return STATUS_INVALID_PARAMETER;
    }
    *OutRequest = nullptr;
    return queue->retrieve(OutRequest);
}

VOID WdfIoQueuePurgeSynchronously(WDFQUEUE Queue)
{
    queue_of(Queue, "WdfIoQueuePurgeSynchronously")->purge(true);
}

NTSTATUS WdfRequestCreate(PWDF_OBJECT_ATTRIBUTES RequestAttributes, WDFIOTARGET IoTarget,
                          WDFREQUEST* Request)
{
    if (IoTarget) {
        Objects::get<Object>(IoTarget, Kind::IoTarget, "WdfRequestCreate");
    }
    if (!Request) {
        return STATUS_INVALID_PARAMETER;
    }
    *Request = nullptr;
    auto request = std::make_shared<wdf::Request>();
    NTSTATUS status = Objects::attach(request, RequestAttributes, nullptr);
    if (NT_SUCCESS(status)) {
        *Request = request->wdf();
    }
    return status;
}

NTSTATUS WdfRequestReuse(WDFREQUEST Request, PWDF_REQUEST_REUSE_PARAMS ReuseParams)
{
    wdf::Request* request = request_of(Request, "WdfRequestReuse");
    if (!ReuseParams || ReuseParams->Size != sizeof(WDF_REQUEST_REUSE_PARAMS) ||
        (ReuseParams->Flags & WDF_REQUEST_REUSE_SET_NEW_IRP)) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!request->created_by_driver()) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    {
        sched::StateLock lock(sched::current());
        if (request->sending) {
            return STATUS_INVALID_DEVICE_STATE;
        }
        request->cancelled = false;
    }
    request->irp()->reuse(ReuseParams->Status);
    return STATUS_SUCCESS;
}

NTSTATUS WdfRequestRetrieveInputMemory(WDFREQUEST Request, WDFMEMORY* Memory)
{
    return memory_of(request_of(Request, "WdfRequestRetrieveInputMemory"), true, Memory);
}

NTSTATUS WdfRequestRetrieveOutputMemory(WDFREQUEST Request, WDFMEMORY* Memory)
{
    return memory_of(request_of(Request, "WdfRequestRetrieveOutputMemory"), false, Memory);
}

NTSTATUS WdfRequestRetrieveInputBuffer(WDFREQUEST Request, size_t MinimumRequiredLength,
                                       PVOID* Buffer, size_t* Length)
{
    return buffer_of(request_of(Request, "WdfRequestRetrieveInputBuffer"), true,
                     MinimumRequiredLength, Buffer, Length);
}

NTSTATUS WdfRequestRetrieveOutputBuffer(WDFREQUEST Request, size_t MinimumRequiredSize,
                                        PVOID* Buffer, size_t* Length)
{
    return buffer_of(request_of(Request, "WdfRequestRetrieveOutputBuffer"), false,
                     MinimumRequiredSize, Buffer, Length);
}

VOID WdfRequestComplete(WDFREQUEST Request, NTSTATUS Status)
{
    complete(Request, Status, nullptr, "WdfRequestComplete");
}

VOID WdfRequestCompleteWithInformation(WDFREQUEST Request, NTSTATUS Status, ULONG_PTR Information)
{
    complete(Request, Status, &Information, "WdfRequestCompleteWithInformation");
}

VOID WdfRequestSetInformation(WDFREQUEST Request, ULONG_PTR Information)
{
    request_of(Request, "WdfRequestSetInformation")->irp()->set_information(Information);
}

ULONG_PTR WdfRequestGetInformation(WDFREQUEST Request)
{
    return request_of(Request, "WdfRequestGetInformation")->irp()->information();
}

NTSTATUS WdfRequestGetStatus(WDFREQUEST Request)
{
    return request_of(Request, "WdfRequestGetStatus")->irp()->status();
}

WDFQUEUE WdfRequestGetIoQueue(WDFREQUEST Request)
{
    wdf::Request* request = request_of(Request, "WdfRequestGetIoQueue");
    sched::StateLock lock(sched::current());
    return request->queue ? request->queue->wdf() : nullptr;
}

NTSTATUS WdfRequestForwardToIoQueue(WDFREQUEST Request, WDFQUEUE DestinationQueue)
{
    wdf::Request* request = held_request(Request, "WdfRequestForwardToIoQueue");
    wdf::Queue* queue = queue_of(DestinationQueue, "WdfRequestForwardToIoQueue");
    Device* device;
    {
        sched::StateLock lock(sched::current());
        device = request->owner_device;
    }
    if (queue->owner() != device) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    return queue->enqueue(std::static_pointer_cast<wdf::Request>(Objects::hold(request)));
}

NTSTATUS WdfRequestForwardToParentDeviceIoQueue(WDFREQUEST Request, WDFQUEUE ParentDeviceQueue,
                                                PWDF_REQUEST_FORWARD_OPTIONS ForwardOptions)
{
    wdf::Request* request = held_request(Request, "WdfRequestForwardToParentDeviceIoQueue");
    wdf::Queue* queue = queue_of(ParentDeviceQueue, "WdfRequestForwardToParentDeviceIoQueue");
    if (!ForwardOptions || ForwardOptions->Size != sizeof(WDF_REQUEST_FORWARD_OPTIONS)) {
        return STATUS_INVALID_PARAMETER;
    }
    Device* child;
    {
        sched::StateLock lock(sched::current());
        child = request->owner_device;
    }
    if (!child || !child->is_pdo() || !child->init().forward_to_parent ||
        queue->owner() != child->bus_parent()) {
        return STATUS_INVALID_DEVICE_REQUEST;
    }
    return queue->enqueue(std::static_pointer_cast<wdf::Request>(Objects::hold(request)));
}

NTSTATUS WdfRequestMarkCancelableEx(WDFREQUEST Request, PFN_WDF_REQUEST_CANCEL EvtRequestCancel)
{
    wdf::Request* request = held_request(Request, "WdfRequestMarkCancelableEx");
    sched::StateLock lock(sched::current());
    if (request->cancelled) {
        return STATUS_CANCELLED;
    }
    request->cancel_routine = EvtRequestCancel;
    return STATUS_SUCCESS;
}

NTSTATUS WdfRequestUnmarkCancelable(WDFREQUEST Request)
{
    wdf::Request* request = held_request(Request, "WdfRequestUnmarkCancelable");
    sched::StateLock lock(sched::current());
    if (!request->cancel_routine) {
        return request->cancelled ? STATUS_CANCELLED : STATUS_SUCCESS;
    }
    request->cancel_routine = nullptr;
    return STATUS_SUCCESS;
}

BOOLEAN WdfRequestIsCanceled(WDFREQUEST Request)
{
    wdf::Request* request = request_of(Request, "WdfRequestIsCanceled");
    sched::StateLock lock(sched::current());
    return request->cancelled;
}

VOID WdfRequestStopAcknowledge(WDFREQUEST Request, BOOLEAN Requeue)
{
    wdf::Request* request = held_request(Request, "WdfRequestStopAcknowledge");
    if (Requeue) {
        request->queue->enqueue(std::static_pointer_cast<wdf::Request>(Objects::hold(request)));
        return;
    }
    sched::StateLock lock(sched::current());
    request->stop_acknowledged = true;
    if (request->owner_device) {
        request->owner_device->ownership_changed();
    }
}

NTSTATUS WdfMemoryCreate(PWDF_OBJECT_ATTRIBUTES Attributes, POOL_TYPE PoolType, ULONG PoolTag,
                         size_t BufferSize, WDFMEMORY* Memory, PVOID* Buffer)
{
    if (!Memory || BufferSize == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    *Memory = nullptr;
    if (PoolTag == 0) {
        wdf::Driver* driver = wdf::Driver::current();
        PoolTag = driver ? driver->config().DriverPoolTag : 0;
    }
    auto memory = std::make_shared<wdf::Memory>(PoolType, PoolTag, BufferSize);
    if (!memory->buffer()) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    NTSTATUS status = Objects::attach(memory, Attributes, nullptr);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    *Memory = static_cast<WDFMEMORY>(memory->handle());
    if (Buffer) {
        *Buffer = memory->buffer();
    }
    return STATUS_SUCCESS;
}

NTSTATUS WdfMemoryCreatePreallocated(PWDF_OBJECT_ATTRIBUTES Attributes, PVOID Buffer,
                                     size_t BufferSize, WDFMEMORY* Memory)
{
    if (!Memory || !Buffer || BufferSize == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    *Memory = nullptr;
    auto memory = std::make_shared<wdf::Memory>(Buffer, BufferSize);
    NTSTATUS status = Objects::attach(memory, Attributes, nullptr);
    if (NT_SUCCESS(status)) {
        *Memory = static_cast<WDFMEMORY>(memory->handle());
    }
    return status;
}

PVOID WdfMemoryGetBuffer(WDFMEMORY Memory, size_t* BufferSize)
{
    auto* memory = Objects::get<wdf::Memory>(Memory, Kind::Memory, "WdfMemoryGetBuffer");
    if (BufferSize) {
        *BufferSize = memory->size();
    }
    return memory->buffer();
}

NTSTATUS WdfMemoryCopyToBuffer(WDFMEMORY SourceMemory, size_t SourceOffset, PVOID Buffer,
                               size_t NumBytesToCopyTo)
{
    auto* memory = Objects::get<wdf::Memory>(SourceMemory, Kind::Memory, "WdfMemoryCopyToBuffer");
    if (!Buffer || SourceOffset > memory->size() ||
        NumBytesToCopyTo > memory->size() - SourceOffset) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    std::memcpy(Buffer, static_cast<char*>(memory->buffer()) + SourceOffset, NumBytesToCopyTo);
    return STATUS_SUCCESS;
}

NTSTATUS WdfMemoryCopyFromBuffer(WDFMEMORY DestinationMemory, size_t DestinationOffset,
                                 PVOID Buffer, size_t NumBytesToCopyFrom)
{
    auto* memory =
        Objects::get<wdf::Memory>(DestinationMemory, Kind::Memory, "WdfMemoryCopyFromBuffer");
    if (!Buffer || DestinationOffset > memory->size() ||
        NumBytesToCopyFrom > memory->size() - DestinationOffset) {
        return STATUS_BUFFER_TOO_SMALL;
    }
    std::memcpy(static_cast<char*>(memory->buffer()) + DestinationOffset, Buffer,
                NumBytesToCopyFrom);
    return STATUS_SUCCESS;
}

} // extern "C"
