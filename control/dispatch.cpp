// The control-request dispatcher of the bus device's default queue.
#include "control/dispatch.h"

#include "control/gps.h"
#include "read/read.h"
#include "uart/line.h"

// The helpers below print under the name of the routine they work for.
#define DISPATCH_FN "FdoIoQuDeviceControl"
// A branch that has finished the request itself, or left it pending, and logged its own end.
#define REQUEST_TAKEN STATUS_PENDING

#define RAW_DUMP_SIZE 16
#define RAW_DUMP_FORMAT                                                                            \
    "IOCTL_VC_SET_LOG_GPS_SENDCMD!%02x,%02x,%02x,%02x,%02x,%02x,%02x,%02x,%02x,%02x,%02x,%02x,"    \
    "%02x,%02x,%02x,%02x"
#define BAUD_SWITCH_UNUSED 870000

volatile LONG download_flag = 1;
volatile LONG sleep_status = 0;

static VOID log_exit()
{
    MvDbgPrintAs(DISPATCH_FN, DBG_TRACE, "-FdoIoQuDeviceControl");
}

static VOID log_no_output(ULONG code, size_t in_length, size_t out_length)
{
    MvDbgPrintAs(DISPATCH_FN, DBG_ERROR, "Failed to get output buffer");
    MvDbgPrintAs(DISPATCH_FN, DBG_ERROR,
                 "+FdoIoQuDeviceControl======>:IoControlCode(0x%x) InBufLen(%d), OutBufLen(%d)",
                 code, (int)in_length, (int)out_length);
}

static VOID wake_up(FdoExtension* ext)
{
    MvDbgPrintAs(DISPATCH_FN, DBG_COMPLETE, " wakeup and start");
    MvDbgPrintAs(DISPATCH_FN, DBG_COMPLETE, "download_flag; %d", (int)download_flag);
    (VOID) H4DownloadPatchCode(ext);
    // Both outcomes say the same: the re-download is the wake-up, its result is not asked.
    if (download_flag == 1) {
        MvDbgPrintAs(DISPATCH_FN, DBG_ERROR, "wakeup Suceed!");
    } else {
        MvDbgPrintAs(DISPATCH_FN, DBG_ERROR, "wakeup Suceed!");
    }
    InterlockedExchange(&sleep_status, 0);
    InterlockedExchange(&download_flag, 0);
}

static NTSTATUS start_read(FdoExtension* ext, WDFREQUEST Request, size_t in_length,
                           size_t out_length)
{
    MvDbgPrintAs(DISPATCH_FN, DBG_COMPLETE, " start read!!!!!!!");
    WDFMEMORY memory;
    NTSTATUS status = WdfRequestRetrieveOutputMemory(Request, &memory);
    if (!NT_SUCCESS(status)) {
        log_no_output(IOCTL_VC_GPS_START_READ, in_length, out_length);
        return status;
    }
    (VOID) WdfMemoryGetBuffer(memory, NULL);
    MvDbgPrintAs(DISPATCH_FN, DBG_COMPLETE, " InBuffer: %d", 0);
    MvDbgPrintAs(DISPATCH_FN, DBG_COMPLETE, " InBufferSize: %d", 0);
    MvDbgPrintAs(DISPATCH_FN, DBG_COMPLETE, " OutBuffer: %08x", 0);
    MvDbgPrintAs(DISPATCH_FN, DBG_COMPLETE, " OutBufferSize: %d", 0);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&ext->PacketLock);
    status = WdfRequestForwardToIoQueue(Request, ext->ReadEventQueue);
    if (NT_SUCCESS(status)) {
        InterlockedIncrement(&ext->ReadEventCount);
        InterlockedIncrement(&ext->DataQueueCount);
    }
    KeReleaseSpinLock(&ext->PacketLock, irql);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    // A failed pass leaves the request in the read queue, where the next pass, a sleep or
    // the queue's purge ends it: it is no longer ours to complete.
    (VOID) UART_ProcessReadQueue(ext, 4, ext->ReadEventQueue, &ext->ReadEventCount,
                                 &ext->ReadDataList, &ext->ReadDataCount);
    log_exit();
    return REQUEST_TAKEN;
}

static VOID go_to_sleep(FdoExtension* ext)
{
    MvDbgPrintAs(DISPATCH_FN, DBG_COMPLETE, " Sleep!");
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&ext->PacketLock);
    WDFREQUEST read;
    if (NT_SUCCESS(WdfIoQueueRetrieveNextRequest(ext->ReadEventQueue, &read))) {
        WdfRequestComplete(read, STATUS_CANCELLED);
    }
    KeReleaseSpinLock(&ext->PacketLock, irql);
    if (sleep_status == 0) {
        MvDbgPrintAs(DISPATCH_FN, DBG_COMPLETE, "sleep_status: %d", 0);
        MvDbgPrintAs(DISPATCH_FN, DBG_ERROR, "sleep Suceed!");
        InterlockedExchange(&sleep_status, 1);
    }
}

static NTSTATUS nmea_output(FdoExtension* ext, ULONG on)
{
    MvDbgPrintAs(DISPATCH_FN, DBG_COMPLETE, on ? " Enable NMEA!" : " Disable NMEA!");
    if (set_nmea_output(on, ext) >= 0) {
        return STATUS_SUCCESS;
    }
    MvDbgPrintAs(DISPATCH_FN, DBG_ERROR, on ? "Failed to Enable EMEA!" : "Failed to Disable EMEA!");
    return STATUS_UNSUCCESSFUL;
}

static NTSTATUS start_up(FdoExtension* ext)
{
    MvDbgPrintAs(DISPATCH_FN, DBG_ERROR, " Start up!");
    if (start_gps(ext, GPS_START_COLD) >= 0) {
        return STATUS_SUCCESS;
    }
    MvDbgPrintAs(DISPATCH_FN, DBG_ERROR, "Start up!");
    return STATUS_UNSUCCESSFUL;
}

// The input record, whole: NULL with the status to complete with otherwise.
static const UCHAR* input_record(WDFREQUEST Request, size_t minimum, size_t* size, NTSTATUS* status)
{
    WDFMEMORY memory;
    *status = WdfRequestRetrieveInputMemory(Request, &memory);
    if (!NT_SUCCESS(*status)) {
        return NULL;
    }
    const UCHAR* buffer = (const UCHAR*)WdfMemoryGetBuffer(memory, size);
    if (*size < minimum) {
        *status = STATUS_INVALID_PARAMETER;
        return NULL;
    }
    return buffer;
}

static NTSTATUS agps_data(FdoExtension* ext, WDFREQUEST Request, size_t in_length)
{
    if (in_length == 0) {
        return STATUS_SUCCESS;
    }
    size_t size;
    NTSTATUS status;
    const UCHAR* record = input_record(Request, sizeof(GPS_AGPS_RECORD), &size, &status);
    if (record != NULL) {
        // A failed transfer is only traced; the client hears of the retrieval alone.
        (VOID) hci_command_agps_tx(ext, (const GPS_AGPS_RECORD*)record);
    }
    return status;
}

static NTSTATUS geofence_set(FdoExtension* ext, WDFREQUEST Request)
{
    size_t size;
    NTSTATUS status;
    const GPS_GEOFENCE_RECORD* in = (const GPS_GEOFENCE_RECORD*)input_record(
        Request, sizeof(GPS_GEOFENCE_RECORD), &size, &status);
    if (in == NULL) {
        return status;
    }
    if (in->Length > sizeof(GEOFENCE_PAYLOAD)) {
        return STATUS_INVALID_PARAMETER;
    }
    GEOFENCE_PAYLOAD payload;
    payload.Field1 = in->Field1;
    payload.Field2 = in->Field2;
    payload.Field3 = in->Field3;
    payload.Field4 = in->Field4;
    payload.Field5 = in->Field5;
    payload.Field6 = in->Field6;
    payload.Field7 = in->Field7;
    payload.Field8 = in->Field8;
    payload.Field9 = in->Field9;
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&ext->PacketLock);
    ext->Geofence_Request = Request;
    KeReleaseSpinLock(&ext->PacketLock, irql);
    LONG result = hci_command_geofence(ext, in->AnswerId, in->Pid, in->Sid, &payload, in->Length);
    return result == 0 ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

static NTSTATUS geofence_cmd(FdoExtension* ext, WDFREQUEST Request)
{
    size_t size;
    NTSTATUS status;
    const GPS_GEOFENCE_CMD_RECORD* in = (const GPS_GEOFENCE_CMD_RECORD*)input_record(
        Request, sizeof(GPS_GEOFENCE_CMD_RECORD), &size, &status);
    if (in == NULL) {
        return status;
    }
    if (in->Length > sizeof(GEOFENCE_CMD_PAYLOAD)) {
        return STATUS_INVALID_PARAMETER;
    }
    GEOFENCE_CMD_PAYLOAD payload;
    RtlCopyMemory(payload.Bytes, in->Payload, sizeof(payload.Bytes));
    LONG result = hci_command_geofence(ext, in->AnswerId, in->Pid, in->Sid, &payload, in->Length);
    return result == 0 ? STATUS_SUCCESS : STATUS_UNSUCCESSFUL;
}

// The two geofence codes complete their requests themselves and log no end line.
static NTSTATUS geofence(FdoExtension* ext, WDFREQUEST Request, size_t in_length, BOOLEAN set)
{
    NTSTATUS status = STATUS_SUCCESS;
    if (in_length != 0) {
        status = set ? geofence_set(ext, Request) : geofence_cmd(ext, Request);
    }
    WdfRequestComplete(Request, status);
    return REQUEST_TAKEN;
}

// The two status reads, also completed here: information 1 for both, the sleep state's four
// bytes included.
static NTSTATUS status_read(WDFREQUEST Request, ULONG code, size_t in_length, size_t out_length)
{
    BOOLEAN sleep = code == IOCTL_VC_GPS_GET_SLEEP_STATUS;
    PVOID buffer;
    NTSTATUS status = WdfRequestRetrieveOutputBuffer(Request, sleep ? sizeof(ULONG) : sizeof(UCHAR),
                                                     &buffer, NULL);
    if (!NT_SUCCESS(status)) {
        log_no_output(code, in_length, out_length);
        WdfRequestComplete(Request, status);
        return REQUEST_TAKEN;
    }
    if (sleep) {
        *(ULONG*)buffer = (ULONG)sleep_status;
    } else {
        *(UCHAR*)buffer = (UCHAR)download_flag;
    }
    WdfRequestCompleteWithInformation(Request, status, 1);
    return REQUEST_TAKEN;
}

static NTSTATUS unknown_code(ULONG code)
{
    MvDbgPrintAs(DISPATCH_FN, DBG_TRACE, " IOCTL_(0x%x, Func %d)", code,
                 (int)((code >> 2) & 0xFFF));
    return STATUS_NOT_SUPPORTED;
}

// The 16 bytes from offset in the record, zeros beyond its end.
static VOID dump_record(const UCHAR* in, size_t size, size_t offset)
{
    UCHAR b[RAW_DUMP_SIZE] = {0};
    for (size_t i = 0; i < RAW_DUMP_SIZE && offset + i < size; i++) {
        b[i] = in[offset + i];
    }
    MvDbgPrintAs(DISPATCH_FN, DBG_ERROR, RAW_DUMP_FORMAT, b[0], b[1], b[2], b[3], b[4], b[5], b[6],
                 b[7], b[8], b[9], b[10], b[11], b[12], b[13], b[14], b[15]);
}

static VOID log_command(const UCHAR* in, size_t size, USHORT length)
{
    const GPS_COMMAND_RECORD* record = (const GPS_COMMAND_RECORD*)in;
    dump_record(in, size, 0);
    dump_record(in, size, GPS_COMMAND_PAYLOAD_OFFSET);
    // The line's last field has never had a value; it prints 0.
    MvDbgPrintAs(DISPATCH_FN, DBG_ERROR,
                 "IOCTL_VC_SET_LOG_GPS_SENDCMD!head:%02x, totallen: %d, pid: %02x,sid: %02x,len: "
                 "%d!!,%d",
                 record->Head, record->TotalLength & 0x7F, record->Pid, record->Sid, length, 0);
}

// Stores the request as the one the chip's answer completes, cancelable by its client.
static NTSTATUS hold_command(FdoExtension* ext, WDFREQUEST Request, UCHAR pid, UCHAR sid,
                             BOOLEAN log)
{
    WriteUCharRelease(&ext->CMD_Pid, pid);
    WriteUCharRelease(&ext->CMD_Sid, sid);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&ext->PacketLock);
    WritePointerRelease((PVOID volatile*)&ext->CMD_Request, Request);
    if (log) {
        MvDbgPrintAs(DISPATCH_FN, DBG_ERROR, "request 0x%p", ext->CMD_Request);
    }
    NTSTATUS status = WdfRequestMarkCancelableEx(Request, FdoCmdRequestCancel);
    if (!NT_SUCCESS(status)) {
        WritePointerRelease((PVOID volatile*)&ext->CMD_Request, NULL);
    }
    KeReleaseSpinLock(&ext->PacketLock, irql);
    return status;
}

// Takes the held request back after a failed send: FALSE when the answer or a cancel has
// completed it already (or is about to).
static BOOLEAN take_back_command(FdoExtension* ext, WDFREQUEST Request)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&ext->PacketLock);
    BOOLEAN ours = ext->CMD_Request == Request;
    if (ours) {
        WritePointerRelease((PVOID volatile*)&ext->CMD_Request, NULL);
        ours = WdfRequestUnmarkCancelable(Request) != STATUS_CANCELLED;
    }
    KeReleaseSpinLock(&ext->PacketLock, irql);
    return ours;
}

// pid 0x16 sid 0 tells the chip a new rate (payload bytes 0-3, little-endian); the UART
// follows it whether the command went out or not.
static VOID follow_baud_rate(FdoExtension* ext, UCHAR pid, UCHAR sid, const UCHAR* payload,
                             USHORT length)
{
    if (pid != GPS_COMMAND_PID_BAUD_RATE || sid != 0 || length < sizeof(ULONG)) {
        return;
    }
    ULONG baud = (ULONG)payload[0] | ((ULONG)payload[1] << 8) | ((ULONG)payload[2] << 16) |
                 ((ULONG)payload[3] << 24);
    if (change_baudrate(ext, baud, BAUD_SWITCH_UNUSED) == 0) {
        MvDbgPrintAs(DISPATCH_FN, DBG_BAUD, "change_baudrate to 115200 success.\n");
    } else {
        MvDbgPrintAs(DISPATCH_FN, DBG_BAUD, "change_baudrate to 115200 not success.\n");
    }
}

// Sends the copied payload; the request stays pending for the chip's answer when it went out.
static NTSTATUS send_command(FdoExtension* ext, WDFREQUEST Request, const GPS_COMMAND_RECORD* in,
                             const UCHAR* payload, USHORT length, BOOLEAN with_ack)
{
    NTSTATUS status = hold_command(ext, Request, in->Pid, in->Sid, !with_ack);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    LONG sent = xfer_hci_pkt_core(ext, with_ack, 1, in->Pid, in->Sid, payload, length, NULL, 0);
    if (with_ack) {
        // A failed command still completes with success.
        return sent != 0 && take_back_command(ext, Request) ? STATUS_SUCCESS : REQUEST_TAKEN;
    }
    if (sent == 0) {
        MvDbgPrintAs(DISPATCH_FN, DBG_ERROR, "send CMD OK!");
    } else {
        if (take_back_command(ext, Request)) {
            WdfRequestComplete(Request, STATUS_UNSUCCESSFUL);
        }
        MvDbgPrintAs(DISPATCH_FN, DBG_ERROR, "send CMD Wrong!");
    }
    return REQUEST_TAKEN;
}

// Raw chip command, with or without waiting for its acknowledgement. The record is read and
// its payload copied before the request is handed over: once held, its answer or a cancel
// may complete it, and its buffer go, at any moment.
static NTSTATUS raw_command(FdoExtension* ext, WDFREQUEST Request, size_t in_length,
                            BOOLEAN with_ack)
{
    if (!with_ack) {
        MvDbgPrintAs(DISPATCH_FN, DBG_ERROR, " IOCTL_VC_SET_LOG_GPS_SENDCMD!");
    }
    if (in_length == 0) {
        return STATUS_SUCCESS;
    }
    size_t size;
    NTSTATUS status;
    const UCHAR* in = input_record(Request, GPS_COMMAND_PAYLOAD_OFFSET, &size, &status);
    if (in == NULL) {
        return status;
    }
    GPS_COMMAND_RECORD record = *(const GPS_COMMAND_RECORD*)in;
    USHORT length = (USHORT)(record.LengthHigh * 256 + record.LengthLow);
    if (GPS_COMMAND_PAYLOAD_OFFSET + (size_t)length > size) {
        return STATUS_INVALID_PARAMETER;
    }
    log_command(in, size, length);
    if (!with_ack) {
        MvDbgPrintAs(DISPATCH_FN, DBG_ERROR, "request 0x%p", Request);
    }
    PUCHAR payload = (PUCHAR)ExAllocatePoolWithTag(NonPagedPoolNx, length + 1u, DRIVER_POOL_TAG);
    if (payload == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlCopyMemory(payload, in + GPS_COMMAND_PAYLOAD_OFFSET, length);
    status = send_command(ext, Request, &record, payload, length, with_ack);
    if (!with_ack && status == REQUEST_TAKEN) {
        follow_baud_rate(ext, record.Pid, record.Sid, payload, length);
        log_exit();
    }
    ExFreePoolWithTag(payload, DRIVER_POOL_TAG);
    return status;
}

static NTSTATUS dispatch(FdoExtension* ext, WDFREQUEST Request, size_t out_length, size_t in_length,
                         ULONG code)
{
    switch (code) {
    case IOCTL_VC_GPS_WAKEUP:
        wake_up(ext);
        return STATUS_SUCCESS;
    case IOCTL_VC_GPS_START_READ:
        return start_read(ext, Request, in_length, out_length);
    case IOCTL_VC_GPS_SLEEP:
        go_to_sleep(ext);
        return STATUS_SUCCESS;
    case IOCTL_VC_GPS_ENABLE_NMEA:
        return nmea_output(ext, 1);
    case IOCTL_VC_GPS_DISABLE_NMEA:
    case IOCTL_VC_GPS_NMEA_OFF:
        return nmea_output(ext, 0);
    case IOCTL_VC_GPS_STARTUP:
        return start_up(ext);
    case IOCTL_VC_GPS_AGPS_DATA:
        return agps_data(ext, Request, in_length);
    case IOCTL_VC_GPS_GET_DOWNLOAD_FLAG:
    case IOCTL_VC_GPS_GET_SLEEP_STATUS:
        return status_read(Request, code, in_length, out_length);
    case IOCTL_VC_SET_LOG_GPS_SENDCMD:
        return raw_command(ext, Request, in_length, FALSE);
    case IOCTL_VC_GPS_SENDCMD_ACK:
        return raw_command(ext, Request, in_length, TRUE);
    case IOCTL_VC_GPS_GEOFENCE_SET:
        return geofence(ext, Request, in_length, TRUE);
    case IOCTL_VC_GPS_GEOFENCE_CMD:
        return geofence(ext, Request, in_length, FALSE);
    case IOCTL_VC_GPS_FEATURE_OFF:
        (VOID) set_output_option(ext, 0);
        return STATUS_SUCCESS;
    default:
        return unknown_code(code);
    }
}

_Use_decl_annotations_ VOID FdoIoQuDeviceControl(WDFQUEUE Queue, WDFREQUEST Request,
                                                 size_t OutputBufferLength,
                                                 size_t InputBufferLength, ULONG IoControlCode)
{
    FdoExtension* ext = FdoGetExtension(WdfIoQueueGetDevice(Queue));
    NTSTATUS status = dispatch(ext, Request, OutputBufferLength, InputBufferLength, IoControlCode);
    if (status == REQUEST_TAKEN) {
        return;
    }
    WdfRequestComplete(Request, status);
    log_exit();
}

// The held raw command, cancelled by its client (a cancel or the handle's close) or by the
// queue's purge.
_Use_decl_annotations_ VOID FdoCmdRequestCancel(WDFREQUEST Request)
{
    FdoExtension* ext = FdoGetExtension(WdfIoQueueGetDevice(WdfRequestGetIoQueue(Request)));
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&ext->PacketLock);
    if (ext->CMD_Request == Request) {
        WritePointerRelease((PVOID volatile*)&ext->CMD_Request, NULL);
    }
    KeReleaseSpinLock(&ext->PacketLock, irql);
    WdfRequestComplete(Request, STATUS_CANCELLED);
}

// Only a raw command waiting for its answer (or overwritten by a later one) is cancelable;
// every other request the queue gave us is being served and ends on its own. A sleep does
// not wait for the chip's answer; a removal ends the wait.
_Use_decl_annotations_ VOID FdoIoQuStop(WDFQUEUE Queue, WDFREQUEST Request, ULONG ActionFlags)
{
    if ((ActionFlags & WdfRequestStopRequestCancelable) == 0) {
        return;
    }
    if (ActionFlags & WdfRequestStopActionSuspend) {
        WdfRequestStopAcknowledge(Request, FALSE);
        return;
    }
    FdoExtension* ext = FdoGetExtension(WdfIoQueueGetDevice(Queue));
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&ext->PacketLock);
    if (ext->CMD_Request == Request) {
        WritePointerRelease((PVOID volatile*)&ext->CMD_Request, NULL);
    }
    NTSTATUS status = WdfRequestUnmarkCancelable(Request);
    KeReleaseSpinLock(&ext->PacketLock, irql);
    if (status != STATUS_CANCELLED) {
        WdfRequestComplete(Request, STATUS_CANCELLED);
    }
}
