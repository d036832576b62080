// Driver entry and device add: the framework driver, the function device with its context,
// child list, default queue and device interface, and the line speed from the registry.
#include <initguid.h>

#include <devguid.h>

#include "child/child.h"
#include "control/control.h"
#include "control/dispatch.h"
#include "driver/lifecycle.h"

#define BAUD_RATE_DEFAULT 9600

static const GUID GUID_DEVINTERFACE_MVGPS = MVGPS_DEVINTERFACE_GUID_INIT;

extern "C" _Use_decl_annotations_ NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject,
                                                       PUNICODE_STRING RegistryPath)
{
    WDF_DRIVER_CONFIG config;
    WDF_DRIVER_CONFIG_INIT(&config, DriverDeviceAdd);
    config.DriverPoolTag = DRIVER_POOL_TAG;
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.EvtCleanupCallback = DriverCleanup;

    NTSTATUS status =
        WdfDriverCreate(DriverObject, RegistryPath, &attributes, &config, WDF_NO_HANDLE);
    if (!NT_SUCCESS(status)) {
        // The text names the wrong call; operators search the log for it as it is.
        MvDbgPrint(DBG_ENTRY, "WdfDeviceCreate Fails: Status(0x%x)", status);
        return status;
    }
    DebugLogStartTrace();
    MvDbgPrint(DBG_BANNER, "INIT: ==================movanta gps bus driver==================\n");
    MvDbgPrint(DBG_BANNER, "INIT: built on %s %s \n ", __DATE__, __TIME__);
    return STATUS_SUCCESS;
}

_Use_decl_annotations_ VOID DriverCleanup(WDFOBJECT DriverObject)
{
    UNREFERENCED_PARAMETER(DriverObject);
    MvDbgPrint(DBG_ENTRY, "");
    DebugLogStopTrace();
}

_Use_decl_annotations_ VOID DriverSetDeviceCallbackEvents(PWDFDEVICE_INIT DeviceInit)
{
    WDF_PNPPOWER_EVENT_CALLBACKS pnp;
    WDF_PNPPOWER_EVENT_CALLBACKS_INIT(&pnp);
    pnp.EvtDeviceD0Entry = FdoDevD0Entry;
    pnp.EvtDeviceD0Exit = FdoDevD0Exit;
    pnp.EvtDevicePrepareHardware = FdoDevPrepareHardware;
    pnp.EvtDeviceReleaseHardware = FdoDevReleaseHardware;
    pnp.EvtDeviceSelfManagedIoCleanup = FdoDevSelfManagedIoCleanup;
    pnp.EvtDeviceSelfManagedIoInit = FdoDevSelfManagedIoInit;
    WdfDeviceInitSetPnpPowerEventCallbacks(DeviceInit, &pnp);
    MvDbgPrint(DBG_ENTRY, "WdfDeviceInit SetPnpPowerEventCallbacks");

    WDF_POWER_POLICY_EVENT_CALLBACKS policy;
    WDF_POWER_POLICY_EVENT_CALLBACKS_INIT(&policy);
    policy.EvtDeviceArmWakeFromS0 = FdoEvtDeviceArmWake;
    policy.EvtDeviceDisarmWakeFromS0 = FdoEvtDeviceDisarmWake;
    WdfDeviceInitSetPowerPolicyEventCallbacks(DeviceInit, &policy);
    MvDbgPrint(DBG_ENTRY, "WdfDeviceInit SetPowerPolicyEventCallbacks");
}

_Use_decl_annotations_ NTSTATUS ReadParameterULong(WDFDRIVER Driver, PCWSTR ValueName, PULONG Value)
{
    PAGED_CODE();
    *Value = 0;
    WDFKEY key;
    NTSTATUS status =
        WdfDriverOpenParametersRegistryKey(Driver, GENERIC_READ, WDF_NO_OBJECT_ATTRIBUTES, &key);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, ValueName);
    status = WdfRegistryQueryULong(key, &name, Value);
    WdfRegistryClose(key);
    if (status == STATUS_OBJECT_NAME_NOT_FOUND) {
        MvDbgPrint(DBG_TRACE, "%wZ not found", &name);
    }
    if (!NT_SUCCESS(status)) {
        *Value = 0;
    }
    return status;
}

_Use_decl_annotations_ VOID ReadBaudRate(WDFDRIVER Driver, WDFDEVICE Device)
{
    PAGED_CODE();
    FdoExtension* ext = FdoGetExtension(Device);
    ULONG rate;
    if (NT_SUCCESS(ReadParameterULong(Driver, L"BaudRateIndex", &rate))) {
        ext->BaudRate = rate;
    } else {
        ext->BaudRate = BAUD_RATE_DEFAULT;
    }
}

static NTSTATUS create_default_queue(WDFDEVICE device)
{
    WDF_IO_QUEUE_CONFIG config;
    WDF_IO_QUEUE_CONFIG_INIT_DEFAULT_QUEUE(&config, WdfIoQueueDispatchParallel);
    config.PowerManaged = WdfTrue;
    config.EvtIoDeviceControl = FdoIoQuDeviceControl;
    config.EvtIoStop = FdoIoQuStop;
    return WdfIoQueueCreate(device, &config, WDF_NO_OBJECT_ATTRIBUTES, WDF_NO_HANDLE);
}

// The device is created; what remains are its lock, queue, interface and bus information.
static NTSTATUS finish_device(WDFDRIVER driver, WDFDEVICE device)
{
    WDF_DEVICE_STATE state;
    WDF_DEVICE_STATE_INIT(&state);
    state.NotDisableable = WdfFalse;
    WdfDeviceSetDeviceState(device, &state);

    FdoExtension* ext = FdoGetExtension(device);
    ReadBaudRate(driver, device);

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = device;
    NTSTATUS status = WdfWaitLockCreate(&attributes, &ext->DeviceLock);
    if (!NT_SUCCESS(status)) {
        MvDbgPrintAs("DriverDeviceAdd", DBG_ERROR, "WdfWaitLockCreate fails: status(0x%x)", status);
        return status;
    }
    status = create_default_queue(device);
    if (!NT_SUCCESS(status)) {
        MvDbgPrintAs("DriverDeviceAdd", DBG_ERROR, "WdfIoQueueCreate fails: status(0x%x)", status);
        return status;
    }
    status = WdfDeviceCreateDeviceInterface(device, &GUID_DEVINTERFACE_MVGPS, NULL);
    if (!NT_SUCCESS(status)) {
        MvDbgPrintAs("DriverDeviceAdd", DBG_ERROR,
                     "WdfDeviceCreateDeviceInterface fails: status(0x%x)", status);
        return status;
    }
    PNP_BUS_INFORMATION bus;
    bus.BusTypeGuid = GUID_DEVCLASS_PORTS;
    bus.LegacyBusType = PNPBus;
    bus.BusNumber = 0;
    WdfDeviceSetBusInformationForChildren(device, &bus);
    return STATUS_SUCCESS;
}

_Use_decl_annotations_ NTSTATUS DriverDeviceAdd(WDFDRIVER Driver, PWDFDEVICE_INIT DeviceInit)
{
    PAGED_CODE();
    MvDbgPrint(DBG_ENTRY, "Enter DriverDeviceAdd");
    DriverSetDeviceCallbackEvents(DeviceInit);
    WdfDeviceInitSetDeviceType(DeviceInit, FILE_DEVICE_SERIAL_PORT);

    WDF_CHILD_LIST_CONFIG children;
    WDF_CHILD_LIST_CONFIG_INIT(&children, sizeof(PDO_IDENTIFICATION_DESCRIPTION),
                               FdoEvtDeviceListCreatePdo);
    WdfFdoInitSetDefaultChildListConfig(DeviceInit, &children, WDF_NO_OBJECT_ATTRIBUTES);

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, FdoExtension);
    WDFDEVICE device;
    NTSTATUS status = WdfDeviceCreate(&DeviceInit, &attributes, &device);
    if (!NT_SUCCESS(status)) {
        MvDbgPrint(DBG_ERROR, "WdfDeviceCreate fails: status(0x%x)", status);
        return status;
    }
    status = finish_device(Driver, device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    MvDbgPrint(DBG_ERROR, "DriverDeviceAdd success ");
    return STATUS_SUCCESS;
}
