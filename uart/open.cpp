// Opening the UART target: by the Resource Hub id of the device's UART connection, or, for a
// device given no such resource, the first serial port the system has registered.
#include <initguid.h>

#include "uart/uart.h"

#define RESHUB_USE_HELPER_ROUTINES
#include <reshub.h>

// Opens the target by the path in Name.
static NTSTATUS open_by_name(WDFIOTARGET target, PCUNICODE_STRING name)
{
    WDF_IO_TARGET_OPEN_PARAMS params;
    WDF_IO_TARGET_OPEN_PARAMS_INIT_OPEN_BY_NAME(&params, name, STANDARD_RIGHTS_ALL);
    return WdfIoTargetOpen(target, &params);
}

// The first serial-port interface. On success the caller frees *List.
static NTSTATUS find_serial_port(PZZWSTR* List, PUNICODE_STRING Name)
{
    MvDbgPrintAs("FdoOpenDevice", DBG_TRACE, "Query the system for device with SERIAL interface");
    NTSTATUS status = IoGetDeviceInterfaces(&GUID_DEVINTERFACE_COMPORT, NULL, 0, List);
    if (!NT_SUCCESS(status)) {
        MvDbgPrintAs("FdoOpenDevice", DBG_ERROR, "IoGetDeviceInterfaces(): Status(0x%x)", status);
        return status;
    }
    MvDbgPrintAs("FdoOpenDevice", DBG_TRACE, "IoGetDeviceInterfaces success. SymbolicLinkList: %ws",
                 *List);
    if ((*List)[0] == 0) {
        ExFreePoolWithTag(*List, 0);
        *List = NULL;
        return STATUS_DEVICE_DOES_NOT_EXIST;
    }
    RtlInitUnicodeString(Name, *List);
    return STATUS_SUCCESS;
}

_Use_decl_annotations_ NTSTATUS FdoOpenDevice(WDFDEVICE Device, WDFIOTARGET* IoTarget)
{
    FdoExtension* ext = FdoGetExtension(Device);
    MvDbgPrint(DBG_ENTRY, "");

    WDFIOTARGET target;
    NTSTATUS status = WdfIoTargetCreate(Device, WDF_NO_OBJECT_ATTRIBUTES, &target);
    if (!NT_SUCCESS(status)) {
        MvDbgPrint(DBG_TRACE, "WdfIoTargetCreate fails: Status(0x%x)", status);
        return status;
    }

    DECLARE_UNICODE_STRING_SIZE(path, RESOURCE_HUB_PATH_SIZE);
    PZZWSTR list = NULL;
    if (ext->UartConnectionId.QuadPart != 0) {
        MvDbgPrint(DBG_TRACE,
                   "RESOURCE_HUB_CREATE_PATH_FROM_ID: UARTConnectionId:Low(0x%x)High(0x%x)",
                   ext->UartConnectionId.LowPart, (ULONG)ext->UartConnectionId.HighPart);
        status = RESOURCE_HUB_CREATE_PATH_FROM_ID(&path, ext->UartConnectionId.LowPart,
                                                  (ULONG)ext->UartConnectionId.HighPart);
        if (!NT_SUCCESS(status)) {
            MvDbgPrint(DBG_ERROR, " Failed to construct the open path Status(0x%x)", status);
        }
    } else {
        status = find_serial_port(&list, &path);
    }

    if (NT_SUCCESS(status)) {
        MvDbgPrint(DBG_TRACE, " Symbolic Name(%wZ)", &path);
        status = open_by_name(target, &path);
        if (NT_SUCCESS(status)) {
            MvDbgPrint(DBG_ERROR, " WdfIoTargetOpen success");
            *IoTarget = target;
        } else {
            MvDbgPrint(DBG_ERROR, " WdfIoTargetOpen failed: Status(0x%x)", status);
        }
    }
    // No target outlives a failed open: a later attempt (the next D0 entry) makes its own.
    if (!NT_SUCCESS(status)) {
        WdfObjectDelete(target);
    }
    if (list != NULL) {
        ExFreePoolWithTag(list, 0);
    }
    return status;
}
