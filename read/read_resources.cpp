// The read side's resources: the data queue, the transmit mutex, the read request and its
// memory, and their release together with the packet lists, the signals and AckBuffer.
#include "read/read.h"

static VOID drain_list(FdoExtension* ext, PLIST_ENTRY list, volatile LONG* count,
                       PCSTR before_remove, PCSTR before_free)
{
    // A list that was never set up (a partly built device) has nothing on it.
    if (list->Flink == NULL) {
        return;
    }
    while (!IsListEmpty(list)) {
        MvDbgPrintAs("UART_FreeReadResources", DBG_ERROR, "%s", before_remove);
        KIRQL irql = KeAcquireSpinLockRaiseToDpc(&ext->PacketLock);
        PacketEntry* entry = CONTAINING_RECORD(RemoveHeadList(list), PacketEntry, ListEntry);
        InterlockedDecrement(count);
        KeReleaseSpinLock(&ext->PacketLock, irql);
        if (entry->Packet != NULL) {
            MvDbgPrintAs("UART_FreeReadResources", DBG_ERROR, "%s", before_free);
        }
        PacketEntryFree(entry);
    }
}

static VOID free_signal(OsSignal** signal)
{
    if (*signal != NULL) {
        OsFreeSignal(signal);
    }
}

_Use_decl_annotations_ NTSTATUS UART_AllocateReadResources(WDFDEVICE Device)
{
    FdoExtension* ext = FdoGetExtension(Device);
    MvDbgPrint(DBG_ERROR, "+UART_AllocateReadResources");

    WDF_IO_QUEUE_CONFIG config;
    WDF_IO_QUEUE_CONFIG_INIT(&config, WdfIoQueueDispatchManual);
    if (ext->ReadEventQueue != NULL) {
        MvDbgPrint(DBG_ERROR, "+IsListEmpty!!!!!!!!!!!!!");
    } else {
        MvDbgPrint(DBG_ERROR, "not +IsListEmpty!!!!!!!!!!!!!");
    }
    // The processing thread already runs and counts with interlocked operations.
    InterlockedExchange(&ext->ReadDataCount, 0);
    InterlockedExchange(&ext->ReadEventCount, 0);

    NTSTATUS status = WdfIoQueueCreate(Device, &config, WDF_NO_OBJECT_ATTRIBUTES, &ext->DataQueue);
    if (!NT_SUCCESS(status)) {
        MvDbgPrint(DBG_ERROR, " WdfIoQueueCreate(Data) Status(0x%x)", status);
    } else {
        InitializeListHead(&ext->DataQueueList);
        ext->DataQueueCount = 0;
        ext->HciPacketEventCount = 0;
        ext->CmdWord = 0;

        if (OsAllocateMutex(&ext->hci_wr_mutex, "hci_wr_mutex") != OS_SUCCESS) {
            MvDbgPrint(DBG_ERROR, "HCI:   PREPARE FOR wr_mutex ERROR");
        }
        ext->DownloadFail_flag = 0;

        WDF_OBJECT_ATTRIBUTES attributes;
        WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
        attributes.ParentObject = Device;
        status = WdfRequestCreate(&attributes, ext->UartIoTarget, &ext->ReadRequest);
        if (!NT_SUCCESS(status)) {
            MvDbgPrint(DBG_ERROR, " WdfRequestCreate(ReadRequest) failed Status(0x%x)", status);
        } else {
            RtlZeroMemory(&ext->ReadCompletionBlock, sizeof(ext->ReadCompletionBlock));
            ext->ReadCompletionBlock.Extension = ext;
            status = WdfMemoryCreatePreallocated(&attributes, ext->ReadCompletionBlock.Buffer,
                                                 sizeof(ext->ReadCompletionBlock.Buffer),
                                                 &ext->ReadRequestMemory);
        }
    }

    MvDbgPrint(DBG_ERROR, "-UART_AllocateReadResources Status(0x%x)", status);
    return status;
}

_Use_decl_annotations_ VOID UART_FreeReadResources(WDFDEVICE Device)
{
    FdoExtension* ext = FdoGetExtension(Device);
    MvDbgPrint(DBG_ERROR, "+UART_DestroyLocalIoQueues");

    drain_list(ext, &ext->ReadDataList, &ext->ReadDataCount, "+IsListEmpty", "+IsListEmpty");
    drain_list(ext, &ext->DataQueueList, &ext->DataQueueCount, "+FdoExtension->ReadDataList",
               "+PacketEntry->Packet");

    if (ext->ReadRequest != NULL) {
        MvDbgPrint(DBG_ERROR, "+FdoExtension->ReadRequest delete (%d)", 0);
        WdfObjectDelete(ext->ReadRequest);
        ext->ReadRequest = NULL;
    }
    if (ext->ReadCompletionBlock.PoolBlock != NULL) {
        ExFreePoolWithTag(ext->ReadCompletionBlock.PoolBlock, ANY_POOL_TAG);
        ext->ReadCompletionBlock.PoolBlock = NULL;
    }
    if (ext->AckBuffer != NULL) {
        ExFreePoolWithTag(ext->AckBuffer, ANY_POOL_TAG);
        ext->AckBuffer = NULL;
        ext->AckBufferSize = 0;
    }

    UART_FreeSignals(ext);
    MvDbgPrint(DBG_ERROR, "---FdoExtension");
}

_Use_decl_annotations_ VOID UART_FreeSignals(FdoExtension* Context)
{
    free_signal(&Context->DeviceAssocFinishSignal);
    if (Context->hci_wr_mutex != NULL) {
        OsFreeMutex(&Context->hci_wr_mutex);
    }
    free_signal(&Context->DataFinishSignal);
    free_signal(&Context->Threadread_FinishSignal);
    free_signal(&Context->Threadprocess_FinishSignal);
}
