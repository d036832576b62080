// Power transitions: the UART target and the threads follow the device in and out of D0;
// self-managed I/O brackets the running phase with the read resources.
#include "control/gps.h"
#include "driver/lifecycle.h"
#include "read/read.h"
#include "uart/line.h"
#include "uart/uart.h"

// Back from low power: the line, both threads and the chip's start-up again. A line the UART
// refuses is logged and the transition still succeeds, with reading left stopped. What the
// chip sent while nothing read is stale, and a backlog of a full read would end the new
// read thread at its first read, so it is thrown away first.
static VOID resume_device(FdoExtension* ext)
{
    if (!FdoSetupLine(ext->UartIoTarget, ext->BaudRate, "FdoDevD0Entry", DBG_OS)) {
        return;
    }
    UartPurgeRx(ext);
    MvDbgPrintAs("FdoDevD0Entry", DBG_ERROR, "Sleep to wakeup!!!!!!!!!!!");
    if (!NT_SUCCESS(FdoStartThreads(ext, "FdoDevD0Entry"))) {
        return;
    }
    MvDbgPrintAs("FdoDevD0Entry", DBG_ERROR, "---->DO entry!!!!!!!!!!!");
    (VOID) H4DownloadPatchCode(ext);
}

_Use_decl_annotations_ NTSTATUS FdoDevD0Entry(WDFDEVICE Device,
                                              WDF_POWER_DEVICE_STATE PreviousState)
{
    FdoExtension* ext = FdoGetExtension(Device);
    MvDbgPrint(DBG_ENTRY, "");
    MvDbgPrint(DBG_ERROR, "---->DO entry!!!!!!!!!!!");
    ext->D0Word = 0;
    MvDbgPrint(DBG_ERROR, "---->DO entry to %d", (int)PreviousState);

    NTSTATUS status = STATUS_SUCCESS;
    if (ext->UartIoTarget == NULL) {
        status = FdoOpenDevice(Device, &ext->UartIoTarget);
        if (!NT_SUCCESS(status) || ext->UartIoTarget == NULL) {
            MvDbgPrint(DBG_ERROR, " FdoOpenDevice failed Status(0x%x)", status);
            // Nothing to start: the transition fails with the open's status.
            return NT_SUCCESS(status) ? STATUS_DEVICE_DOES_NOT_EXIST : status;
        }
    }
    status = WdfIoTargetStart(ext->UartIoTarget);
    if (!NT_SUCCESS(status)) {
        MvDbgPrint(DBG_ERROR, "WdfIoTargetStart failed STATUS(0x%x)", status);
    } else if (ReadULongAcquire(&ext->HwPrepared_flag) != 0) {
        // Device initialisation has just done the work.
        MvDbgPrint(DBG_ERROR, "enable!!!!!!!!!!!");
    } else {
        resume_device(ext);
    }
    if (ext->DataFinishSignal != NULL) {
        MvDbgPrint(DBG_ERROR, "DataFinishSignal!!!!!!!!!!!");
    } else {
        MvDbgPrint(DBG_ERROR, "not DataFinishSignal!!!!!!!!!!!");
    }
    MvDbgPrint(DBG_TRACE, "FdoDevD0Entry: end. STATUS(0x%x)", status);
    return status;
}

_Use_decl_annotations_ NTSTATUS FdoDevD0Exit(WDFDEVICE Device, WDF_POWER_DEVICE_STATE TargetState)
{
    FdoExtension* ext = FdoGetExtension(Device);
    MvDbgPrint(DBG_ENTRY, "");
    MvDbgPrint(DBG_ERROR, "---->DO EXIT to %d", (int)TargetState);
    if (ext->UartIoTarget != NULL) {
        WdfIoTargetStop(ext->UartIoTarget, WdfIoTargetCancelSentIo);
    }
    FdoStopThreads(ext, TRUE, __FUNCTION__);
    return STATUS_SUCCESS;
}

_Use_decl_annotations_ NTSTATUS FdoDevSelfManagedIoInit(WDFDEVICE Device)
{
    FdoExtension* ext = FdoGetExtension(Device);
    MvDbgPrint(DBG_TRACE, "");
    NTSTATUS status = UART_AllocateReadResources(Device);
    if (!NT_SUCCESS(status)) {
        MvDbgPrint(DBG_ERROR, " UART_CreateLocalIOQueues failed Status(0x%x)", status);
        // The threads use the signals and AckBuffer that the release frees: stop them first.
        WdfIoTargetStop(ext->UartIoTarget, WdfIoTargetCancelSentIo);
        FdoStopThreads(ext, TRUE, __FUNCTION__);
        UART_FreeReadResources(Device);
        return status;
    }
    WriteULongRelease(&ext->HwPrepared_flag, 0);
    ext->ReadCompletionBlock.SelfIoState = 3;
    ext->IsEnable_flag = 1;
    MvDbgPrint(DBG_ERROR, "IsEnable_flag:::::::::1");
    return STATUS_SUCCESS;
}

_Use_decl_annotations_ VOID FdoDevSelfManagedIoCleanup(WDFDEVICE Device)
{
    MvDbgPrint(DBG_ENTRY, "");
    MvDbgPrint(DBG_ERROR, "---->FdoDevSelfManagedIoCleanup entry!!!!!!!!!!!");
    UART_FreeReadResources(Device);
}

_Use_decl_annotations_ NTSTATUS FdoEvtDeviceArmWake(WDFDEVICE Device)
{
    UNREFERENCED_PARAMETER(Device);
    MvDbgPrint(DBG_ENTRY, "");
    return STATUS_SUCCESS;
}

_Use_decl_annotations_ VOID FdoEvtDeviceDisarmWake(WDFDEVICE Device)
{
    UNREFERENCED_PARAMETER(Device);
    MvDbgPrint(DBG_ENTRY, "");
}
