// Filling the device context at hardware preparation: the request objects and locks, then the
// line, the read queue, the signals, AckBuffer, both threads and the chip's start-up.
#include "control/gps.h"
#include "driver/lifecycle.h"
#include "uart/uart.h"

#define SUCCESS_TEXT(ok) ((ok) ? "Success" : "Fail")

_Use_decl_annotations_ NTSTATUS HlpInitializeFdoExtension(WDFDEVICE Device)
{
    FdoExtension* ext = FdoGetExtension(Device);
    MvDbgPrint(DBG_ENTRY, "+HlpInitializeFdoExtension");
    ext->Device = Device;
    ext->InitParams.Word0 = 1025;
    ext->InitParams.Word1 = 2;
    ext->InitParams.Word2 = 1;
    ext->InitParams.Word3 = 1;

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = Device;
    NTSTATUS status = WdfRequestCreate(&attributes, ext->UartIoTarget, &ext->UartRequest);
    if (!NT_SUCCESS(status)) {
        MvDbgPrint(DBG_BANNER, " WdfRequestCreate failed :STATUS(0x%x)", status);
        return status;
    }
    ext->StateByte0 = 0;
    status = WdfRequestCreate(&attributes, ext->UartIoTarget, &ext->UartRequest2);
    if (!NT_SUCCESS(status)) {
        MvDbgPrint(DBG_BANNER, " WdfRequestCreate failed: STATUS(0x%x)", status);
        return status;
    }
    status = WdfMemoryCreatePreallocated(&attributes, ext->RequestBuffer,
                                         sizeof(ext->RequestBuffer), &ext->RequestMemory);
    if (!NT_SUCCESS(status)) {
        MvDbgPrint(DBG_BANNER, " WdfMemoryCreatePreallocated failed STATUS(0x%x)", status);
        return status;
    }
    KeInitializeSpinLock(&ext->PacketLock);
    KeInitializeSpinLock(&ext->PacketLock2);
    MvDbgPrint(DBG_ENTRY, "-HlpInitializeFdoExtension");
    return status;
}

_Use_decl_annotations_ BOOLEAN FdoSetupLine(WDFIOTARGET IoTarget, ULONG BaudRate, PCSTR Function,
                                            ULONG Class)
{
    SERIAL_BAUD_RATE rate = {BaudRate};
    BOOLEAN ok = SerialSendIoSync(IoTarget, IOCTL_SERIAL_SET_BAUD_RATE, sizeof(rate), &rate);
    MvDbgPrintAs(Function, Class, "COM: Set BaudRate(%d) %s\n", (int)rate.BaudRate,
                 SUCCESS_TEXT(ok));
    if (!ok) {
        return FALSE;
    }
    SERIAL_LINE_CONTROL line = {STOP_BIT_1, NO_PARITY, 8};
    ok = SerialSendIoSync(IoTarget, IOCTL_SERIAL_SET_LINE_CONTROL, sizeof(line), &line);
    MvDbgPrintAs(Function, Class, "COM: Set LineControl %s\n", SUCCESS_TEXT(ok));
    if (!ok) {
        return FALSE;
    }
    SERIAL_HANDFLOW flow = {};
    ok = SerialSendIoSync(IoTarget, IOCTL_SERIAL_SET_HANDFLOW, sizeof(flow), &flow);
    MvDbgPrintAs(Function, Class, "COM: Set handflow %s\n", SUCCESS_TEXT(ok));
    return ok;
}

static VOID delete_event_queue(FdoExtension* ext)
{
    if (ext->ReadEventQueue != NULL) {
        MvDbgPrintAs("DeviceInitialize", DBG_ERROR, "+_FdoExtension->ReadEventQueue  delete");
        WdfObjectDelete(ext->ReadEventQueue);
        ext->ReadEventQueue = NULL;
    }
}

static VOID free_signal(OsSignal** signal, PCSTR text)
{
    if (*signal != NULL) {
        MvDbgPrintAs("DeviceInitialize", DBG_ERROR, "%s", text);
        OsFreeSignal(signal);
    }
}

// Everything DeviceInitialize made, in reverse order. Threads that were started are stopped
// first, with the target, since they use all of it.
static VOID unwind_device_init(FdoExtension* ext)
{
    if (ReadULongAcquire(&ext->Threadread_flag) == 1) {
        WdfIoTargetStop(ext->UartIoTarget, WdfIoTargetCancelSentIo);
        FdoStopThreads(ext, FALSE, "DeviceInitialize");
    }
    if (ext->AckBuffer != NULL) {
        ExFreePoolWithTag(ext->AckBuffer, DRIVER_POOL_TAG);
        ext->AckBuffer = NULL;
        ext->AckBufferSize = 0;
    }
    free_signal(&ext->Threadprocess_FinishSignal, "free Threadprocess_FinishSignal");
    free_signal(&ext->Threadread_FinishSignal, "free Threadread_FinishSignal");
    free_signal(&ext->DataFinishSignal, "free DataFinishSignal");
    free_signal(&ext->DeviceAssocFinishSignal, "free DeviceAssocFinishSignal");
    delete_event_queue(ext);
}

static NTSTATUS create_event_queue(WDFDEVICE device, FdoExtension* ext)
{
    WDF_IO_QUEUE_CONFIG config;
    WDF_IO_QUEUE_CONFIG_INIT(&config, WdfIoQueueDispatchManual);
    NTSTATUS status =
        WdfIoQueueCreate(device, &config, WDF_NO_OBJECT_ATTRIBUTES, &ext->ReadEventQueue);
    if (!NT_SUCCESS(status)) {
        MvDbgPrintAs("DeviceInitialize", DBG_ERROR, " WdfIoQueueCreate(Event) Status(0x%x)",
                     status);
        delete_event_queue(ext);
    }
    return status;
}

static BOOLEAN allocate_signal(OsSignal** signal, PCSTR name, PCSTR failure)
{
    if (OsAllocateSignal(signal, name) != OS_SUCCESS) {
        MvDbgPrintAs("DeviceInitialize", DBG_ERROR, "%s", failure);
        return FALSE;
    }
    return TRUE;
}

static BOOLEAN allocate_signals(FdoExtension* ext)
{
    if (!allocate_signal(&ext->DeviceAssocFinishSignal, "DeviceAssocFinishSignal",
                         "HCI:   PREPARE FOR DeviceAssocFinishSignal ERROR")) {
        return FALSE;
    }
    MvDbgPrintAs("DeviceInitialize", DBG_ERROR, "OsAllocateSignal DataFinishSignal!!");
    return allocate_signal(&ext->DataFinishSignal, "DataFinishSignal",
                           "HCI:   PREPARE FOR DataFinishSignal ERROR") &&
           allocate_signal(&ext->Threadread_FinishSignal, "Threadread_FinishSignal",
                           "HCI:   PREPARE FOR Threadread_FinishSignal ERROR") &&
           allocate_signal(&ext->Threadprocess_FinishSignal, "Threadprocess_FinishSignal",
                           "HCI:   PREPARE FOR Threadprocess_FinishSignal ERROR");
}

// Mode is what hardware preparation passes (always 1), and Request its UartRequest; the
// routine needs neither.
_Use_decl_annotations_ BOOLEAN DeviceInitialize(WDFDEVICE Device, FdoExtension* Extension,
                                                WDFIOTARGET IoTarget, WDFREQUEST Request,
                                                ULONG Mode)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(Request);
    UNREFERENCED_PARAMETER(Mode);
    MvDbgPrint(DBG_OS, "+DeviceInitialize");

    if (!FdoSetupLine(IoTarget, Extension->BaudRate, "DeviceInitialize", DBG_ERROR)) {
        return FALSE;
    }
    if (!NT_SUCCESS(create_event_queue(Device, Extension))) {
        return FALSE;
    }
    if (!allocate_signals(Extension)) {
        unwind_device_init(Extension);
        return FALSE;
    }
    WriteULongRelease(&Extension->ReadThreadRunning, 0);
    Extension->AckBuffer =
        (PUCHAR)ExAllocatePoolWithTag(NonPagedPoolNx, FDO_ACK_BUFFER_SIZE, DRIVER_POOL_TAG);
    if (Extension->AckBuffer == NULL) {
        unwind_device_init(Extension);
        return FALSE;
    }
    Extension->AckBufferSize = FDO_ACK_BUFFER_SIZE;
    InitializeListHead(&Extension->ReadDataList);
    if (!NT_SUCCESS(FdoStartThreads(Extension, "DeviceInitialize"))) {
        unwind_device_init(Extension);
        return FALSE;
    }

    Extension->Initialized_flag = 1;
    if (!H4DownloadPatchCode(Extension)) {
        unwind_device_init(Extension);
        return FALSE;
    }
    MvDbgPrint(DBG_OS, "-DeviceInitialize");
    return TRUE;
}
