// Every complete frame from the receive path, on the read thread: the awaited
// acknowledgement for the sender, a copy queued for client reads, and the answer to a
// pending raw command.
#include "link/device/command.h"
#include "read/packet_entry.h"

// The helpers below print under the name of the routine they work for.
#define PROCESS_FN "local_process_pkt"

// The copy is cut at the size allocated for the buffer; the sender still finds err_status
// at offset 7.
static VOID store_ack(FdoExtension* ext, const UCHAR* frame, USHORT len)
{
    USHORT kept = len < ext->AckBufferSize ? len : ext->AckBufferSize;
    MvDbgPrintAs(PROCESS_FN, DBG_ERROR, "Enter OsSetSignal!!");
    RtlCopyMemory(ext->AckBuffer, frame, kept);
    ext->AckLength = kept;
    OsSetSignal(ext->DeviceAssocFinishSignal);
}

static VOID queue_frame(FdoExtension* ext, const UCHAR* frame, USHORT len)
{
    PacketEntry* entry = PacketEntryCreate(frame, len);
    if (entry == NULL) {
        return;
    }
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&ext->PacketLock);
    InsertTailList(&ext->ReadDataList, &entry->ListEntry);
    InterlockedIncrement(&ext->ReadDataCount);
    KeReleaseSpinLock(&ext->PacketLock, irql);
    MvDbgPrintAs(PROCESS_FN, DBG_ERROR, "Enter OsSetSignal!!");
    OsSetSignal(ext->DataFinishSignal);
}

// Under PacketLock. The answer goes into the client's output buffer only when it fits; a
// shorter buffer, or none, gets an error status and nothing.
static VOID answer_cmd_request(WDFREQUEST request, const UCHAR* frame, USHORT len)
{
    WDFMEMORY memory;
    ULONG_PTR information = 0;
    NTSTATUS status = WdfRequestRetrieveOutputMemory(request, &memory);
    if (NT_SUCCESS(status)) {
        MvDbgPrintAs(PROCESS_FN, DBG_ERROR, "success to get output buffer");
        size_t size = 0;
        PUCHAR pdata = (PUCHAR)WdfMemoryGetBuffer(memory, &size);
        MvDbgPrintAs(PROCESS_FN, DBG_ERROR, "BufferSize: %d", (int)size);
        MvDbgPrintAs(PROCESS_FN, DBG_ERROR, "pdata:%p", pdata);
        MvDbgPrintAs(PROCESS_FN, DBG_ERROR, "Bufferplen: %d", len);
        if (size < len) {
            status = STATUS_BUFFER_TOO_SMALL;
        } else {
            for (USHORT i = 0; i < len; i++) {
                pdata[i] = frame[i];
                MvDbgPrintAs(PROCESS_FN, DBG_ERROR, "pdata:%02x", pdata[i]);
            }
            information = len;
        }
    }
    WdfRequestCompleteWithInformation(request, status, information);
}

static VOID complete_cmd_request(FdoExtension* ext, const UCHAR* frame, USHORT len)
{
    MvDbgPrintAs(PROCESS_FN, DBG_COMPLETE, "ACK:ff 0!");
    if (ReadPointerAcquire((PVOID const volatile*)&ext->CMD_Request) == NULL) {
        MvDbgPrintAs(PROCESS_FN, DBG_ERROR, "FdoExtension CMD_Request is NULL");
        return;
    }
    MvDbgPrintAs(PROCESS_FN, DBG_ERROR, "VC: Current IRQL(%d)", KeGetCurrentIrql());
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&ext->PacketLock);
    MvDbgPrintAs(PROCESS_FN, DBG_ERROR, "VC: Current IRQL(%d)", KeGetCurrentIrql());
    WDFREQUEST request = ext->CMD_Request;
    MvDbgPrintAs(PROCESS_FN, DBG_ERROR, "request 0x%p", request);
    // A request is answered once: a repeated answer, or one that arrives after the request
    // path took the request back, finds the field cleared.
    // A request its client is cancelling is left to the cancel routine.
    if (request != NULL) {
        WritePointerRelease((PVOID volatile*)&ext->CMD_Request, NULL);
        if (WdfRequestUnmarkCancelable(request) != STATUS_CANCELLED) {
            answer_cmd_request(request, frame, len);
        }
    }
    KeReleaseSpinLock(&ext->PacketLock, irql);
}

LONG local_process_pkt(const UCHAR* frame, USHORT len, UCHAR crc_flag, PVOID context)
{
    UNREFERENCED_PARAMETER(crc_flag);
    FdoExtension* ext = (FdoExtension*)context;
    UCHAR pid = frame[3];
    UCHAR sid = frame[4];

    MvDbgPrint(DBG_ERROR, "+++local_process_pkt!!!!!!!!!!");
    MvDbgPrint(DBG_ERROR, "pid is:%02x,sid is:%02x", pid, sid);

    // The sender stores the pid and sid before it raises the flag, so the flag is read first.
    UCHAR waiting = ReadUCharAcquire(&ext->WaitAck_flag);
    UCHAR wait_pid = ReadUCharAcquire(&ext->WaitAckPid);
    UCHAR wait_sid = ReadUCharAcquire(&ext->WaitAckSid);
    if (waiting == 1 && wait_pid == pid && wait_sid == sid) {
        store_ack(ext, frame, len);
    } else {
        MvDbgPrint(DBG_ERROR, "pid is:%02x,sid is:%02x", pid, sid);
        MvDbgPrint(DBG_ERROR, "pid is:%02x,sid is:%02x", wait_pid, wait_sid);
    }

    if (pid != HCI_PID_STATUS) {
        queue_frame(ext, frame, len);
    } else {
        MvDbgPrint(DBG_ERROR, "pid is:%02x,sid is:%02x", pid, sid);
    }

    UCHAR cmd_pid = ReadUCharAcquire(&ext->CMD_Pid);
    UCHAR cmd_sid = ReadUCharAcquire(&ext->CMD_Sid);
    MvDbgPrint(DBG_ERROR, "pid is:%02x,sid is:%02x", cmd_pid, cmd_sid);
    if (pid == cmd_pid && sid == cmd_sid) {
        complete_cmd_request(ext, frame, len);
    }

    MvDbgPrint(DBG_ERROR, "--------local_process_pkt");
    return 0;
}
