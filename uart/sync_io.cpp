// Synchronous requests to the UART target. The given request object only goes through the
// reuse step; every send passes no request, so the framework supplies one and no two sends
// ever share a request object.
#include "uart/uart.h"

static NTSTATUS reuse_request(WDFREQUEST Request)
{
    WDF_REQUEST_REUSE_PARAMS params;
    WDF_REQUEST_REUSE_PARAMS_INIT(&params, WDF_REQUEST_REUSE_NO_FLAGS, STATUS_SUCCESS);
    return WdfRequestReuse(Request, &params);
}

static VOID init_send_options(PWDF_REQUEST_SEND_OPTIONS options, LONGLONG timeout)
{
    WDF_REQUEST_SEND_OPTIONS_INIT(options, WDF_REQUEST_SEND_OPTION_SYNCHRONOUS);
    WDF_REQUEST_SEND_OPTIONS_SET_TIMEOUT(options, timeout);
}

// A read (code 0) or a device control whose output is the buffer.
static NTSTATUS send_in(WDFIOTARGET IoTarget, ULONG IoControlCode, PWDF_MEMORY_DESCRIPTOR buffer,
                        PWDF_REQUEST_SEND_OPTIONS options, PULONG_PTR bytes)
{
    if (IoControlCode != 0) {
        return WdfIoTargetSendIoctlSynchronously(IoTarget, NULL, IoControlCode, NULL, buffer,
                                                 options, bytes);
    }
    return WdfIoTargetSendReadSynchronously(IoTarget, NULL, buffer, NULL, options, bytes);
}

// A write (code 0) or a device control whose input is the buffer; no buffer when there is
// nothing to send.
static NTSTATUS send_out(WDFIOTARGET IoTarget, ULONG IoControlCode, ULONG Length, PVOID Buffer,
                         PWDF_REQUEST_SEND_OPTIONS options, PULONG_PTR bytes)
{
    WDF_MEMORY_DESCRIPTOR descriptor;
    PWDF_MEMORY_DESCRIPTOR input = NULL;
    if (Buffer != NULL && Length != 0) {
        WDF_MEMORY_DESCRIPTOR_INIT_BUFFER(&descriptor, Buffer, Length);
        input = &descriptor;
    }
    if (IoControlCode != 0) {
        return WdfIoTargetSendIoctlSynchronously(IoTarget, NULL, IoControlCode, input, NULL,
                                                 options, bytes);
    }
    return WdfIoTargetSendWriteSynchronously(IoTarget, NULL, input, NULL, options, bytes);
}

_Use_decl_annotations_ NTSTATUS FdoReadFromDeviceSync(WDFIOTARGET IoTarget, WDFREQUEST Request,
                                                      ULONG IoControlCode, ULONG Length,
                                                      PVOID Buffer, PULONG_PTR BytesRead)
{
    NTSTATUS status = reuse_request(Request);
    if (!NT_SUCCESS(status)) {
        MvDbgPrint(DBG_ERROR, " WdfRequestReuse failed Status(0x%x)", status);
        return status;
    }
    WDF_MEMORY_DESCRIPTOR descriptor;
    WDF_MEMORY_DESCRIPTOR_INIT_BUFFER(&descriptor, Buffer, Length);
    WDF_REQUEST_SEND_OPTIONS options;
    init_send_options(&options, WDF_REL_TIMEOUT_IN_SEC(UART_READ_TIMEOUT_SEC));

    ULONG_PTR bytes = 0;
    status = send_in(IoTarget, IoControlCode, &descriptor, &options, &bytes);
    if (BytesRead != NULL) {
        *BytesRead = bytes;
    }
    return status;
}

_Use_decl_annotations_ NTSTATUS FdoWriteToDeviceSyncWithTimeOut(
    WDFIOTARGET IoTarget, WDFREQUEST Request, ULONG IoControlCode, ULONG Length, PVOID Buffer,
    PULONG_PTR BytesWritten, ULONG TimeoutSeconds)
{
    MvDbgPrint(DBG_TRACE, "+FdoWriteToDeviceSync");
    NTSTATUS status = reuse_request(Request);
    if (!NT_SUCCESS(status)) {
        MvDbgPrint(DBG_ERROR, " WdfRequestReuse failed Status(0x%x)", status);
    } else {
        WDF_REQUEST_SEND_OPTIONS options;
        init_send_options(&options, -(LONGLONG)TimeoutSeconds * WDF_TIMEOUT_TO_SEC);
        ULONG_PTR bytes = 0;
        status = send_out(IoTarget, IoControlCode, Length, Buffer, &options, &bytes);
        if (NT_SUCCESS(status)) {
            *BytesWritten = bytes;
        }
    }
    MvDbgPrint(DBG_TRACE, "-FdoWriteToDeviceSync: Status(0x%x|%s)BytesWritten(%d)", status,
               IoStatusText(status), (int)*BytesWritten);
    return status;
}

PCSTR IoStatusText(NTSTATUS Status)
{
    switch (Status) {
    case STATUS_INVALID_PARAMETER:
        return "InvalidParam";
    case STATUS_IO_TIMEOUT:
        return "IoTimeout";
    default:
        return " ";
    }
}

typedef NTSTATUS serial_call_fn(WDFIOTARGET IoTarget, WDFREQUEST Request, ULONG IoControlCode,
                                ULONG Length, PVOID Buffer, PULONG_PTR Bytes);

static NTSTATUS serial_send(WDFIOTARGET IoTarget, WDFREQUEST Request, ULONG IoControlCode,
                            ULONG Length, PVOID Buffer, PULONG_PTR Bytes)
{
    return FdoWriteToDeviceSyncWithTimeOut(IoTarget, Request, IoControlCode, Length, Buffer, Bytes,
                                           UART_SERIAL_TIMEOUT_SEC);
}

// One serial control call on a request of its own, deleted afterwards. A request that
// cannot be created fails the call with the creation status. The failure line is printed
// under the caller's name.
static BOOLEAN serial_call(PCSTR function, serial_call_fn* call, WDFIOTARGET IoTarget,
                           ULONG IoControlCode, ULONG Length, PVOID Buffer)
{
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = IoTarget;
    WDFREQUEST request;
    NTSTATUS status = WdfRequestCreate(&attributes, IoTarget, &request);
    if (NT_SUCCESS(status)) {
        ULONG_PTR bytes = 0;
        status = call(IoTarget, request, IoControlCode, Length, Buffer, &bytes);
        WdfObjectDelete(request);
    }
    if (status != STATUS_SUCCESS) {
        MvDbgPrintAs(function, DBG_OS, "SerialSendIoSync fail with 0x%x\n", status);
        return FALSE;
    }
    return TRUE;
}

_Use_decl_annotations_ BOOLEAN SerialSendIoSync(WDFIOTARGET IoTarget, ULONG IoControlCode,
                                                ULONG Length, PVOID Buffer)
{
    return serial_call(__FUNCTION__, serial_send, IoTarget, IoControlCode, Length, Buffer);
}

_Use_decl_annotations_ BOOLEAN SerialReadFromSync(WDFIOTARGET IoTarget, ULONG IoControlCode,
                                                  ULONG Length, PVOID Buffer)
{
    return serial_call(__FUNCTION__, FdoReadFromDeviceSync, IoTarget, IoControlCode, Length,
                       Buffer);
}

_Use_decl_annotations_ NTSTATUS HalWriteToDeviceSync(WDFIOTARGET IoTarget, WDFREQUEST Request,
                                                     ULONG IoControlCode, LONG Length, PVOID Buffer,
                                                     PULONG_PTR BytesWritten)
{
    MvDbgPrint(DBG_ERROR, "+++HalWriteToDeviceSync");
    NTSTATUS status = reuse_request(Request);
    if (!NT_SUCCESS(status)) {
        MvDbgPrint(DBG_ERROR, "WdfRequestReuse failed Status((0x%x)", status);
    } else {
        WDF_REQUEST_SEND_OPTIONS options;
        init_send_options(&options, UART_HAL_TIMEOUT);
        ULONG_PTR bytes = 0;
        // A negative length sends no buffer.
        ULONG length = Length > 0 ? (ULONG)Length : 0;
        status = send_out(IoTarget, IoControlCode, length, Buffer, &options, &bytes);
        if (NT_SUCCESS(status)) {
            *BytesWritten = bytes;
        }
    }
    MvDbgPrint(DBG_ERROR, "---HalWriteToDeviceSync");
    return status;
}

_Use_decl_annotations_ NTSTATUS HalReadFromDeviceSync(WDFIOTARGET IoTarget, WDFREQUEST Request,
                                                      ULONG IoControlCode, ULONG Length,
                                                      PVOID Buffer, PULONG_PTR BytesRead,
                                                      FdoExtension* Context)
{
    NTSTATUS status = reuse_request(Request);
    if (!NT_SUCCESS(status)) {
        MvDbgPrint(DBG_ERROR, "WdfRequestReuse failed Status(%x)", status);
        return status;
    }
    WDF_MEMORY_DESCRIPTOR descriptor;
    WDF_MEMORY_DESCRIPTOR_INIT_BUFFER(&descriptor, Buffer, Length);
    WDF_REQUEST_SEND_OPTIONS options;
    init_send_options(&options, UART_HAL_TIMEOUT);

    ULONG_PTR bytes = 0;
    if (ReadULongAcquire(&Context->ReadEnable_flag) != 0) {
        status = send_in(IoTarget, IoControlCode, &descriptor, &options, &bytes);
        if (IoControlCode == 0 && status == STATUS_CANCELLED) {
            MvDbgPrint(DBG_ERROR, "I/O Canceled!!");
            WriteULongRelease(&Context->ReadEnable_flag, 0);
        }
    }
    if (BytesRead != NULL) {
        *BytesRead = bytes;
    }
    return status;
}
