// Creating the child: a work item adds its description to the default child list, and the
// list's create callback builds the device with its ids, texts, capabilities and queue.
#include "child/child.h"

#include <ntstrsafe.h>

#define PDO_COMPATIBLE_ID L"MVT_GPS"
#define PDO_LOCATION L"Serial HCI Bus - GPS Function"
#define PDO_LOCALE 0x409
#define PDO_TEXT_BYTES 160

// The hardware id lives here for the life of the image: descriptions point at it.
static WCHAR PdoHardwareId[] = PDO_HARDWARE_ID;
static_assert(sizeof(PdoHardwareId) / sizeof(WCHAR) == PDO_HARDWARE_ID_CHARS,
              "the character count includes the terminator");

_Use_decl_annotations_ VOID DeviceEnablePDOWorker(WDFWORKITEM WorkItem)
{
    MvDbgPrint(DBG_OS, "+DeviceEnablePDOWorker");
    WDFDEVICE device = WorkItemGetContext(WorkItem)->Device;
    MvDbgPrint(DBG_OS, "+Complete the wait");
    NTSTATUS status = AddChild(device, PdoHardwareId, PDO_HARDWARE_ID_CHARS, PDO_SERIAL_NO);
    MvDbgPrint(DBG_OS, "-DeviceEnablePDOWorker %!STATUS!", status);
}

_Use_decl_annotations_ NTSTATUS AddChild(WDFDEVICE Device, PWCHAR HardwareIds,
                                         size_t CchHardwareIds, ULONG SerialNo)
{
    PAGED_CODE();
    PDO_IDENTIFICATION_DESCRIPTION description;
    WDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER_INIT(&description.Header, sizeof(description));
    description.SerialNo = SerialNo;
    description.CchHardwareIds = CchHardwareIds;
    description.HardwareIds = HardwareIds;

    NTSTATUS status = WdfChildListAddOrUpdateChildDescriptionAsPresent(
        WdfFdoGetDefaultChildList(Device), &description.Header, NULL);
    return status == STATUS_OBJECT_NAME_EXISTS ? STATUS_INVALID_PARAMETER : status;
}

_Use_decl_annotations_ NTSTATUS FdoEvtDeviceListCreatePdo(
    WDFCHILDLIST ChildList, PWDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER IdentificationDescription,
    PWDFDEVICE_INIT ChildInit)
{
    PAGED_CODE();
    MvDbgPrint(DBG_ERROR, "++FdoEvtDeviceListCreatePdo");
    PDO_IDENTIFICATION_DESCRIPTION* description =
        CONTAINING_RECORD(IdentificationDescription, PDO_IDENTIFICATION_DESCRIPTION, Header);
    return PdoCreateDynamic(WdfChildListGetDevice(ChildList), ChildInit, description->HardwareIds,
                            description->SerialNo);
}

// Ids and texts, in the order the framework wants them before the device is created.
static NTSTATUS assign_identity(PWDFDEVICE_INIT init, PWCHAR hardwareIds, ULONG serialNo)
{
    WdfDeviceInitSetDeviceType(init, FILE_DEVICE_BUS_EXTENDER);
    UNICODE_STRING hardwareId;
    RtlInitUnicodeString(&hardwareId, hardwareIds);
    NTSTATUS status = WdfPdoInitAssignDeviceID(init, &hardwareId);
    if (NT_SUCCESS(status)) {
        status = WdfPdoInitAddHardwareID(init, &hardwareId);
    }
    if (NT_SUCCESS(status)) {
        DECLARE_CONST_UNICODE_STRING(compatibleId, PDO_COMPATIBLE_ID);
        status = WdfPdoInitAddCompatibleID(init, &compatibleId);
    }
    DECLARE_UNICODE_STRING_SIZE(text, PDO_TEXT_BYTES / sizeof(WCHAR));
    if (NT_SUCCESS(status)) {
        status = RtlUnicodeStringPrintf(&text, L"%02d", serialNo);
    }
    if (NT_SUCCESS(status)) {
        status = WdfPdoInitAssignInstanceID(init, &text);
    }
    if (NT_SUCCESS(status)) {
        status = RtlUnicodeStringPrintf(&text, L"SerialHciBus_%02d", serialNo);
    }
    if (NT_SUCCESS(status)) {
        DECLARE_CONST_UNICODE_STRING(location, PDO_LOCATION);
        status = WdfPdoInitAddDeviceText(init, &text, &location, PDO_LOCALE);
    }
    if (NT_SUCCESS(status)) {
        WdfPdoInitSetDefaultLocale(init, PDO_LOCALE);
    }
    return status;
}

static VOID set_capabilities(WDFDEVICE child, ULONG serialNo)
{
    WDF_DEVICE_PNP_CAPABILITIES pnp;
    WDF_DEVICE_PNP_CAPABILITIES_INIT(&pnp);
    pnp.Removable = WdfFalse;
    pnp.SurpriseRemovalOK = WdfTrue;
    pnp.Address = serialNo;
    pnp.UINumber = serialNo;
    WdfDeviceSetPnpCapabilities(child, &pnp);

    // Deliberate as they stand, D1 unsupported while S1 to S3 map to it included.
    WDF_DEVICE_POWER_CAPABILITIES power;
    WDF_DEVICE_POWER_CAPABILITIES_INIT(&power);
    power.DeviceD1 = WdfFalse;
    power.DeviceD2 = WdfTrue;
    power.WakeFromD0 = WdfFalse;
    power.WakeFromD1 = WdfFalse;
    power.WakeFromD2 = WdfTrue;
    power.WakeFromD3 = WdfTrue;
    power.DeviceState[PowerSystemUnspecified] = PowerDeviceMaximum;
    power.DeviceState[PowerSystemWorking] = PowerDeviceD0;
    power.DeviceState[PowerSystemSleeping1] = PowerDeviceD1;
    power.DeviceState[PowerSystemSleeping2] = PowerDeviceD1;
    power.DeviceState[PowerSystemSleeping3] = PowerDeviceD1;
    power.DeviceState[PowerSystemHibernate] = PowerDeviceD2;
    power.DeviceState[PowerSystemShutdown] = PowerDeviceD2;
    power.DeviceWake = PowerDeviceD1;
    power.SystemWake = PowerSystemMaximum;
    power.D1Latency = 0xFFFFFFFF;
    power.D2Latency = 0xFFFFFFFF;
    power.D3Latency = 0xFFFFFFFF;
    power.IdealDxStateForSx = PowerDeviceMaximum;
    WdfDeviceSetPowerCapabilities(child, &power);
}

// Not power-managed: requests reach the child in low power and wait in the parent's queue.
static NTSTATUS create_child_queue(WDFDEVICE child)
{
    WDF_IO_QUEUE_CONFIG config;
    WDF_IO_QUEUE_CONFIG_INIT_DEFAULT_QUEUE(&config, WdfIoQueueDispatchParallel);
    config.PowerManaged = WdfFalse;
    config.EvtIoDeviceControl = PdoIoQuDeviceControl;
    NTSTATUS status = WdfIoQueueCreate(child, &config, WDF_NO_OBJECT_ATTRIBUTES, WDF_NO_HANDLE);
    MvDbgPrintAs("PdoCreateDynamic", DBG_OS, " WdfIoQueueCreate (%!STATUS!)", status);
    return status;
}

_Use_decl_annotations_ NTSTATUS PdoCreateDynamic(WDFDEVICE Device, PWDFDEVICE_INIT DeviceInit,
                                                 PWCHAR HardwareIds, ULONG SerialNo)
{
    PAGED_CODE();
    MvDbgPrint(DBG_BANNER, " PdoCreateDynamic entry");
    NTSTATUS status = assign_identity(DeviceInit, HardwareIds, SerialNo);
    if (!NT_SUCCESS(status)) {
        return status;
    }

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, PdoExtension);
    WdfPdoInitAllowForwardingRequestToParent(DeviceInit);
    WDFDEVICE child;
    status = WdfDeviceCreate(&DeviceInit, &attributes, &child);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PdoExtension* pdo = PdoGetExtension(child);
    pdo->ParentExtension = FdoGetExtension(Device);
    pdo->SerialNo = SerialNo;
    set_capabilities(child, SerialNo);

    status = create_child_queue(child);
    if (!NT_SUCCESS(status)) {
        MvDbgPrint(DBG_BANNER, " -PdoCreateDynamic: exit %!STATUS!", status);
        WdfObjectDelete(child);
    } else {
        MvDbgPrint(DBG_OS, " -PdoCreateDynamic: exit %!STATUS!", status);
    }
    MvDbgPrint(DBG_ERROR, "-PdoCreateDynamic");
    return status;
}
