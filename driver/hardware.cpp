// Hardware preparation and release: the connection resources, the UART target, the device
// context, the idle policy, device initialisation and the work item that adds the child.
#include "child/child.h"
#include "driver/lifecycle.h"
#include "read/read.h"
#include "uart/uart.h"

#define FDO_GPIO_SLOTS 3

// One connection descriptor: the UART (a later one wins), the I2C controller, or the next
// GPIO line while slots are free. Returns TRUE for a UART.
static BOOLEAN record_connection(FdoExtension* ext, const CM_PARTIAL_RESOURCE_DESCRIPTOR* d,
                                 ULONG* gpioCount)
{
    LARGE_INTEGER id;
    id.LowPart = d->u.Connection.IdLowPart;
    id.HighPart = (LONG)d->u.Connection.IdHighPart;
    UCHAR cls = d->u.Connection.Class;
    UCHAR type = d->u.Connection.Type;
    if (cls == CM_RESOURCE_CONNECTION_CLASS_SERIAL &&
        type == CM_RESOURCE_CONNECTION_TYPE_SERIAL_UART) {
        ext->UartConnectionId = id;
        MvDbgPrintAs("FdoFindConnectResources", DBG_TRACE,
                     "UART Connection ID is found. UART ConnectionID (0x%x, 0x%x)",
                     (ULONG)id.HighPart, id.LowPart);
        return TRUE;
    }
    if (cls == CM_RESOURCE_CONNECTION_CLASS_SERIAL &&
        type == CM_RESOURCE_CONNECTION_TYPE_SERIAL_I2C) {
        ext->I2cConnectionId = id;
        MvDbgPrintAs("FdoFindConnectResources", DBG_TRACE, " I2C ConnectionID (0x%x, 0x%x)",
                     (ULONG)id.HighPart, id.LowPart);
    } else if (cls == CM_RESOURCE_CONNECTION_CLASS_GPIO &&
               type == CM_RESOURCE_CONNECTION_TYPE_GPIO_IO) {
        static const PCSTR slotText[FDO_GPIO_SLOTS] = {"GPIO_0 ConnectionID (0x%x, 0x%x)",
                                                       "GPIO_1 ConnectionID (0x%x, 0x%x)",
                                                       "GPIO_2 ConnectionID (0x%x, 0x%x)"};
        if (*gpioCount < FDO_GPIO_SLOTS) {
            ext->GpioConnectionId[*gpioCount] = id;
            MvDbgPrintAs("FdoFindConnectResources", DBG_TRACE, slotText[*gpioCount],
                         (ULONG)id.HighPart, id.LowPart);
        } else {
            MvDbgPrintAs("FdoFindConnectResources", DBG_TRACE, "more GPIO than expected:(%d)",
                         (int)*gpioCount);
        }
        (*gpioCount)++;
    }
    return FALSE;
}

_Use_decl_annotations_ NTSTATUS FdoFindConnectResources(WDFDEVICE Device, WDFCMRESLIST ResourcesRaw,
                                                        WDFCMRESLIST ResourcesTranslated)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(ResourcesRaw);
    FdoExtension* ext = FdoGetExtension(Device);
    ULONG count = WdfCmResourceListGetCount(ResourcesTranslated);
    MvDbgPrint(DBG_ENTRY, "ResourceCount(%d)", (int)count);

    BOOLEAN uartFound = FALSE;
    ULONG gpioCount = 0;
    for (ULONG i = 0; i < count; i++) {
        PCM_PARTIAL_RESOURCE_DESCRIPTOR d = WdfCmResourceListGetDescriptor(ResourcesTranslated, i);
        if (d == NULL) {
            continue;
        }
        switch (d->Type) {
        case CmResourceTypePort:
            MvDbgPrint(DBG_TRACE, "CmResourceTypePort");
            break;
        case CmResourceTypeInterrupt:
            MvDbgPrint(DBG_TRACE, "CmResourceTypeInterrupt");
            break;
        case CmResourceTypeConnection:
            MvDbgPrint(DBG_TRACE, "CmResourceTypeConnection");
            uartFound |= record_connection(ext, d, &gpioCount);
            break;
        default:
            MvDbgPrint(DBG_TRACE, "Resource type %d not used.", (int)d->Type);
            break;
        }
    }

    NTSTATUS status = STATUS_SUCCESS;
    if (!uartFound) {
        MvDbgPrint(DBG_TRACE, "UartConnectionId Not Found");
        status = STATUS_NOT_FOUND;
    }
    MvDbgPrint(DBG_TRACE, " FdoFindConnectResources ResourceCount(%d),STATUS(0x%x)", (int)count,
               status);
    return status;
}

_Use_decl_annotations_ NTSTATUS FdoSetIdleSettings(WDFDEVICE Device, BOOLEAN Supported)
{
    PAGED_CODE();
    WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS settings;
    WDF_DEVICE_POWER_POLICY_IDLE_SETTINGS_INIT(&settings, IdleCannotWakeFromS0);
    settings.DxState = PowerDeviceD3;
    settings.IdleTimeoutType = DriverManagedIdleTimeout;
    // Idle stays off whatever the resources say: the chip is never powered down in S0.
    settings.Enabled = WdfFalse;
    if (Supported) {
        MvDbgPrint(DBG_TRACE, "IdleInS0 is supported");
        settings.UserControlOfIdleSettings = IdleDoNotAllowUserControl;
        settings.PowerUpIdleDeviceOnSystemWake = WdfFalse;
    } else {
        MvDbgPrint(DBG_TRACE, "IdleInS0 is not supported");
        settings.UserControlOfIdleSettings = IdleAllowUserControl;
        settings.PowerUpIdleDeviceOnSystemWake = WdfTrue;
    }
    NTSTATUS status = WdfDeviceAssignS0IdleSettings(Device, &settings);
    MvDbgPrint(DBG_TRACE, "FdoSetIdleSettings STATUS(0x%x)", status);
    return status;
}

// The child is added from a work item, once the chip has started.
static NTSTATUS queue_child_worker(WDFDEVICE device)
{
    MvDbgPrintAs("FdoDevPrepareHardware", DBG_ERROR, "+CreateWorkItem to enable PDO");
    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, DeviceEnablePDOWorker);
    config.AutomaticSerialization = TRUE;
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, WorkItemContext);
    attributes.ParentObject = device;
    WDFWORKITEM item;
    NTSTATUS status = WdfWorkItemCreate(&config, &attributes, &item);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    MvDbgPrintAs("FdoDevPrepareHardware", DBG_ERROR, "+CreateWorkItem to enable PDO");
    WorkItemGetContext(item)->Device = device;
    WdfWorkItemEnqueue(item);
    return status;
}

_Use_decl_annotations_ NTSTATUS FdoDevPrepareHardware(WDFDEVICE Device, WDFCMRESLIST ResourcesRaw,
                                                      WDFCMRESLIST ResourcesTranslated)
{
    PAGED_CODE();
    FdoExtension* ext = FdoGetExtension(Device);

    // Without a UART resource the open falls back to a serial-port interface.
    NTSTATUS status = FdoFindConnectResources(Device, ResourcesRaw, ResourcesTranslated);
    if (!NT_SUCCESS(status)) {
        MvDbgPrint(DBG_ERROR, "FdoFindConnectResources fails: status(0x%x)", status);
    }
    status = FdoOpenDevice(Device, &ext->UartIoTarget);
    if (!NT_SUCCESS(status) || ext->UartIoTarget == NULL) {
        MvDbgPrint(DBG_ERROR, " FdoOpenDevice failed Status(0x%x)", status);
        return status;
    }
    status = HlpInitializeFdoExtension(Device);
    if (!NT_SUCCESS(status)) {
        MvDbgPrint(DBG_ERROR, " HlpInitializeFdoExtension failed STATUS(0x%x)", status);
        return status;
    }
    NTSTATUS idle = FdoSetIdleSettings(Device, ext->UartConnectionId.LowPart != 0);
    if (!NT_SUCCESS(idle)) {
        MvDbgPrint(DBG_ERROR, " FdoSetIdleSettings fail: STATUS(0x%x)", idle);
    }

    ext->DeviceInit_flag = DeviceInitialize(Device, ext, ext->UartIoTarget, ext->UartRequest, 1);
    WriteULongRelease(&ext->HwPrepared_flag, 1);
    MvDbgPrint(DBG_ERROR, "Threadread_flag:::::::::1");
    if (ext->DeviceInit_flag) {
        status = queue_child_worker(Device);
    } else {
        status = STATUS_DEVICE_NOT_READY;
        MvDbgPrint(DBG_ERROR, " DeviceInitialize failed STATUS(0x%x)", status);
    }
    MvDbgPrint(DBG_TRACE, "FdoDevPrepareHardware End: STATUS(0x%x)", status);
    return status;
}

// Also the clean-up after a failed preparation, so every step copes with what was never made.
_Use_decl_annotations_ NTSTATUS FdoDevReleaseHardware(WDFDEVICE Device,
                                                      WDFCMRESLIST ResourcesTranslated)
{
    PAGED_CODE();
    UNREFERENCED_PARAMETER(ResourcesTranslated);
    MvDbgPrint(DBG_ERROR, "FdoDevReleaseHardware\n");
    FdoExtension* ext = FdoGetExtension(Device);
    MvDbgPrint(DBG_ERROR, "FdoDevReleaseHardware\n");

    if (ReadULongAcquire(&ext->Threadread_flag) == 1) {
        WdfIoTargetStop(ext->UartIoTarget, WdfIoTargetCancelSentIo);
        FdoStopThreads(ext, TRUE, __FUNCTION__);
    }
    UART_FreeSignals(ext);

    MvDbgPrint(DBG_ERROR, "FdoDevReleaseHardware\n");
    if (ext->UartIoTarget != NULL) {
        WdfIoTargetClose(ext->UartIoTarget);
        WdfObjectDelete(ext->UartIoTarget);
        ext->UartIoTarget = NULL;
    }
    if (ext->AckBuffer != NULL) {
        ExFreePoolWithTag(ext->AckBuffer, 0);
        ext->AckBuffer = NULL;
        ext->AckBufferSize = 0;
    }
    MvDbgPrint(DBG_ERROR, "FdoDevReleaseHardware\n");
    return STATUS_SUCCESS;
}
