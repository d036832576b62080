// Completion of client reads: queued frames are paired with the read requests waiting in
// the manual queue, one frame per request, on the processing thread and in the dispatcher.
#include "read/read.h"

// The helpers below print under the name of the routine they work for.
#define QUEUE_FN "UART_ProcessReadQueue"

// Writes the header, then the frame when the whole record fits. Returns the completion
// status and sets *information.
static NTSTATUS fill_read_buffer(PUCHAR buffer, size_t size, const PacketEntry* entry,
                                 ULONG_PTR* information)
{
    *information = 0;
    // The header is written before the size test, as clients have always seen it; a buffer
    // too small even for the header gets nothing.
    if (size < READ_COMPLETION_HEADER_SIZE) {
        MvDbgPrintAs(QUEUE_FN, DBG_ERROR,
                     "Error: Buffer too small!!! BufferSize(%d)<BytesToReturn(%d)", (int)size,
                     entry->Length + READ_COMPLETION_HEADER_SIZE);
        return STATUS_BUFFER_TOO_SMALL;
    }
    buffer[0] = READ_COMPLETION_TYPE;
    ULONG words[3] = {(ULONG)entry->Length, 1, 2};
    RtlCopyMemory(buffer + 4, words, sizeof(words));

    ULONG_PTR to_return = (ULONG_PTR)entry->Length + READ_COMPLETION_HEADER_SIZE;
    if (to_return > size) {
        MvDbgPrintAs(QUEUE_FN, DBG_ERROR,
                     "Error: Buffer too small!!! BufferSize(%d)<BytesToReturn(%d)", (int)size,
                     (int)to_return);
        return STATUS_BUFFER_TOO_SMALL;
    }
    RtlCopyMemory(buffer + READ_COMPLETION_HEADER_SIZE, entry->Packet, entry->Length);
    *information = to_return;
    return STATUS_SUCCESS;
}

// Under PacketLock: completes one retrieved request with the entry, which is freed.
// Returns FALSE when the request had no output buffer.
static BOOLEAN complete_read(FdoExtension* ext, WDFREQUEST request, PacketEntry* entry,
                             NTSTATUS* result)
{
    WDFMEMORY memory;
    NTSTATUS status = WdfRequestRetrieveOutputMemory(request, &memory);
    *result = status;
    if (!NT_SUCCESS(status)) {
        MvDbgPrintAs(QUEUE_FN, DBG_QUEUE, " Could not retrieve output buffer");
        WdfRequestCompleteWithInformation(request, status, 0);
        MvDbgPrintAs(QUEUE_FN, DBG_QUEUE, " Release the PacketEntry buffer!");
        PacketEntryFree(entry);
        return FALSE;
    }
    size_t size = 0;
    PUCHAR buffer = (PUCHAR)WdfMemoryGetBuffer(memory, &size);
    ULONG_PTR information;
    status = fill_read_buffer(buffer, size, entry, &information);

    MvDbgPrintAs(QUEUE_FN, DBG_COMPLETE, "The copy buffer!!!!!!!");
    PacketEntryFree(entry);
    LONG completed = InterlockedIncrement(&ext->HciPacketEventCount);
    MvDbgPrintAs(QUEUE_FN, DBG_COMPLETE,
                 " [%d] HciPacketEvent completing Status(0x%x), %d BytesToReturn", completed,
                 status, (int)information);
    MvDbgPrintAs(QUEUE_FN, DBG_COMPLETE, " Completing Request(%p) Status(0x%x), %d BytesToReturn",
                 request, status, (int)information);
    WdfRequestCompleteWithInformation(request, status, information);
    *result = status;
    return TRUE;
}

_Use_decl_annotations_ NTSTATUS UART_ProcessReadQueue(FdoExtension* Context, ULONG Kind,
                                                      WDFQUEUE Queue, volatile LONG* QueueCount,
                                                      PLIST_ENTRY List, volatile LONG* ListCount)
{
    UNREFERENCED_PARAMETER(Kind);
    NTSTATUS status = STATUS_SUCCESS;

    MvDbgPrint(DBG_COMPLETE, "+UART_ProcessReadQueue");
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Context->PacketLock);
    while (!IsListEmpty(List)) {
        WDFREQUEST request = NULL;
        NTSTATUS retrieved = WdfIoQueueRetrieveNextRequest(Queue, &request);
        InterlockedDecrement(QueueCount);
        PacketEntry* entry = CONTAINING_RECORD(RemoveHeadList(List), PacketEntry, ListEntry);
        InterlockedDecrement(ListCount);

        if (retrieved == STATUS_NO_MORE_ENTRIES) {
            // Frames are not kept for later readers.
            MvDbgPrint(DBG_QUEUE, "STATUS_NO_MORE_ENTRIES!");
            status = STATUS_PENDING;
            PacketEntryFree(entry);
            continue;
        }
        if (!NT_SUCCESS(retrieved)) {
            status = retrieved;
            PacketEntryFree(entry);
            continue;
        }
        if (!complete_read(Context, request, entry, &status)) {
            // A request without an output buffer ends the pass at once.
            KeReleaseSpinLock(&Context->PacketLock, irql);
            MvDbgPrint(DBG_READQ, "-UART_ProcessReadQueue: Status(0x%x)", status);
            return status;
        }
    }
    KeReleaseSpinLock(&Context->PacketLock, irql);

    if (status != STATUS_SUCCESS) {
        MvDbgPrint(DBG_QUEUE, "STATUS is not SUCCESS");
    } else {
        MvDbgPrint(DBG_COMPLETE, "The copy PacketEntry!!!!!!!");
    }
    MvDbgPrint(DBG_READQ, "-UART_ProcessReadQueue: Status(0x%x)", status);
    return status;
}

_Use_decl_annotations_ VOID UART_ProcessReadQueue_GPS(PVOID StartContext)
{
    FdoExtension* ext = (FdoExtension*)StartContext;

    while (ReadULongAcquire(&ext->Thread_flag) != 0) {
        MvDbgPrint(DBG_ERROR, "Enter OsWaitForSignal!!");
        (VOID) OsWaitForSignal(ext->DataFinishSignal, 0);
        MvDbgPrint(DBG_ERROR, "+UART_ProcessReadQueue!!!!!!!!!!!!!");
        (VOID) UART_ProcessReadQueue(ext, 4, ext->ReadEventQueue, &ext->ReadEventCount,
                                     &ext->ReadDataList, &ext->ReadDataCount);
        OsClearSignal(ext->DataFinishSignal);
    }
    OsSetSignal(ext->Threadprocess_FinishSignal);
    MvDbgPrint(DBG_ERROR, "OsSetSignal Threadprocess_FinishSignal");
}
