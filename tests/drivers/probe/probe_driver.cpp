// A tiny driver that exercises the host: every callback logs "probe: <event>", and its
// control codes each show one framework behaviour or break one verifier rule on purpose.
#include <ntddk.h>
#include <wdf.h>

#include <initguid.h>

#include "probe.h"

typedef struct _PROBE_CONTEXT {
    WDFQUEUE Parked;
    WDFREQUEST Held;
    WDFWORKITEM ChildWork;
} PROBE_CONTEXT, *PPROBE_CONTEXT;
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(PROBE_CONTEXT, ProbeGetContext)

typedef struct _PROBE_CHILD {
    WDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER Header;
    ULONG SerialNo;
} PROBE_CHILD;

typedef struct _PROBE_WORK {
    WDFDEVICE Device;
} PROBE_WORK;
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(PROBE_WORK, ProbeGetWork)

static ULONG g_Loads;
static ULONG g_QueuePowerManaged = 1;
static ULONG g_AllowForward = 1;

#define LOG(...) DbgPrint("probe: " __VA_ARGS__)

extern "C" DRIVER_INITIALIZE DriverEntry;
static EVT_WDF_DRIVER_DEVICE_ADD ProbeDeviceAdd;
static EVT_WDF_DRIVER_UNLOAD ProbeUnload;
static EVT_WDF_OBJECT_CONTEXT_CLEANUP ProbeDriverCleanup;
static EVT_WDF_DEVICE_PREPARE_HARDWARE ProbePrepareHardware;
static EVT_WDF_DEVICE_RELEASE_HARDWARE ProbeReleaseHardware;
static EVT_WDF_DEVICE_D0_ENTRY ProbeD0Entry;
static EVT_WDF_DEVICE_D0_EXIT ProbeD0Exit;
static EVT_WDF_DEVICE_SELF_MANAGED_IO_INIT ProbeSelfManagedIoInit;
static EVT_WDF_DEVICE_SELF_MANAGED_IO_SUSPEND ProbeSelfManagedIoSuspend;
static EVT_WDF_DEVICE_SELF_MANAGED_IO_RESTART ProbeSelfManagedIoRestart;
static EVT_WDF_DEVICE_SELF_MANAGED_IO_FLUSH ProbeSelfManagedIoFlush;
static EVT_WDF_DEVICE_SELF_MANAGED_IO_CLEANUP ProbeSelfManagedIoCleanup;
static EVT_WDF_DEVICE_SURPRISE_REMOVAL ProbeSurpriseRemoval;
static EVT_WDF_IO_QUEUE_IO_DEVICE_CONTROL ProbeDeviceControl;
static EVT_WDF_IO_QUEUE_IO_DEVICE_CONTROL ProbeChildDeviceControl;
static EVT_WDF_CHILD_LIST_CREATE_DEVICE ProbeCreateChild;
static EVT_WDF_DEVICE_PREPARE_HARDWARE ProbeChildPrepareHardware;
static EVT_WDF_DEVICE_RELEASE_HARDWARE ProbeChildReleaseHardware;
static EVT_WDF_WORKITEM ProbeAddChildWork;

static ULONG ReadParameter(WDFDRIVER Driver, PCUNICODE_STRING Name, ULONG Default)
{
    WDFKEY key;
    ULONG value = Default;
    if (NT_SUCCESS(WdfDriverOpenParametersRegistryKey(Driver, GENERIC_READ,
                                                      WDF_NO_OBJECT_ATTRIBUTES, &key))) {
        if (!NT_SUCCESS(WdfRegistryQueryULong(key, Name, &value))) {
            value = Default;
        }
        WdfRegistryClose(key);
    }
    return value;
}

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    WDF_DRIVER_CONFIG config;
    WDF_OBJECT_ATTRIBUTES attributes;
    WDFDRIVER driver;
    DECLARE_CONST_UNICODE_STRING(powerManaged, L"QueuePowerManaged");
    DECLARE_CONST_UNICODE_STRING(allowForward, L"AllowForward");

    g_Loads++;
    WDF_DRIVER_CONFIG_INIT(&config, ProbeDeviceAdd);
    config.EvtDriverUnload = ProbeUnload;
    config.DriverPoolTag = PROBE_POOL_TAG;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.EvtCleanupCallback = ProbeDriverCleanup;
    NTSTATUS status = WdfDriverCreate(DriverObject, RegistryPath, &attributes, &config, &driver);
    if (NT_SUCCESS(status)) {
        g_QueuePowerManaged = ReadParameter(driver, &powerManaged, 1);
        g_AllowForward = ReadParameter(driver, &allowForward, 1);
        LOG("DriverEntry\n");
    }
    return status;
}

static VOID ProbeUnload(WDFDRIVER Driver)
{
    UNREFERENCED_PARAMETER(Driver);
    LOG("Unload\n");
}

static VOID ProbeDriverCleanup(WDFOBJECT Object)
{
    UNREFERENCED_PARAMETER(Object);
    LOG("DriverCleanup\n");
}

static NTSTATUS ProbeDeviceAdd(WDFDRIVER Driver, PWDFDEVICE_INIT DeviceInit)
{
    WDF_PNPPOWER_EVENT_CALLBACKS pnp;
    WDF_CHILD_LIST_CONFIG children;
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_IO_QUEUE_CONFIG queueConfig;
    WDF_WORKITEM_CONFIG workConfig;
    WDFDEVICE device;
    NTSTATUS status;

    UNREFERENCED_PARAMETER(Driver);
    LOG("DeviceAdd\n");
    WDF_PNPPOWER_EVENT_CALLBACKS_INIT(&pnp);
    pnp.EvtDevicePrepareHardware = ProbePrepareHardware;
    pnp.EvtDeviceReleaseHardware = ProbeReleaseHardware;
    pnp.EvtDeviceD0Entry = ProbeD0Entry;
    pnp.EvtDeviceD0Exit = ProbeD0Exit;
    pnp.EvtDeviceSelfManagedIoInit = ProbeSelfManagedIoInit;
    pnp.EvtDeviceSelfManagedIoSuspend = ProbeSelfManagedIoSuspend;
    pnp.EvtDeviceSelfManagedIoRestart = ProbeSelfManagedIoRestart;
    pnp.EvtDeviceSelfManagedIoFlush = ProbeSelfManagedIoFlush;
    pnp.EvtDeviceSelfManagedIoCleanup = ProbeSelfManagedIoCleanup;
    pnp.EvtDeviceSurpriseRemoval = ProbeSurpriseRemoval;
    WdfDeviceInitSetPnpPowerEventCallbacks(DeviceInit, &pnp);
    WDF_CHILD_LIST_CONFIG_INIT(&children, sizeof(PROBE_CHILD), ProbeCreateChild);
    WdfFdoInitSetDefaultChildListConfig(DeviceInit, &children, WDF_NO_OBJECT_ATTRIBUTES);

    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, PROBE_CONTEXT);
    status = WdfDeviceCreate(&DeviceInit, &attributes, &device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    PPROBE_CONTEXT context = ProbeGetContext(device);

    WDF_IO_QUEUE_CONFIG_INIT_DEFAULT_QUEUE(&queueConfig, WdfIoQueueDispatchParallel);
    queueConfig.EvtIoDeviceControl = ProbeDeviceControl;
    queueConfig.PowerManaged = g_QueuePowerManaged ? WdfTrue : WdfFalse;
    status = WdfIoQueueCreate(device, &queueConfig, WDF_NO_OBJECT_ATTRIBUTES, WDF_NO_HANDLE);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    WDF_IO_QUEUE_CONFIG_INIT(&queueConfig, WdfIoQueueDispatchManual);
    status = WdfIoQueueCreate(device, &queueConfig, WDF_NO_OBJECT_ATTRIBUTES, &context->Parked);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    WDF_WORKITEM_CONFIG_INIT(&workConfig, ProbeAddChildWork);
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, PROBE_WORK);
    attributes.ParentObject = device;
    status = WdfWorkItemCreate(&workConfig, &attributes, &context->ChildWork);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    ProbeGetWork(context->ChildWork)->Device = device;
    return WdfDeviceCreateDeviceInterface(device, &GUID_DEVINTERFACE_PROBE, NULL);
}

static NTSTATUS ProbePrepareHardware(WDFDEVICE Device, WDFCMRESLIST Raw, WDFCMRESLIST Translated)
{
    UNREFERENCED_PARAMETER(Device);
    UNREFERENCED_PARAMETER(Raw);
    LOG("PrepareHardware(%u)\n", WdfCmResourceListGetCount(Translated));
    return STATUS_SUCCESS;
}

static NTSTATUS ProbeReleaseHardware(WDFDEVICE Device, WDFCMRESLIST Translated)
{
    UNREFERENCED_PARAMETER(Device);
    UNREFERENCED_PARAMETER(Translated);
    LOG("ReleaseHardware\n");
    return STATUS_SUCCESS;
}

static NTSTATUS ProbeD0Entry(WDFDEVICE Device, WDF_POWER_DEVICE_STATE PreviousState)
{
    UNREFERENCED_PARAMETER(Device);
    LOG("D0Entry(D%d)\n", PreviousState == WdfPowerDeviceD3Final ? 9 : PreviousState - 1);
    return STATUS_SUCCESS;
}

static NTSTATUS ProbeD0Exit(WDFDEVICE Device, WDF_POWER_DEVICE_STATE TargetState)
{
    UNREFERENCED_PARAMETER(Device);
    LOG("D0Exit(D%d)\n", TargetState == WdfPowerDeviceD3Final ? 9 : TargetState - 1);
    return STATUS_SUCCESS;
}

static NTSTATUS ProbeSelfManagedIoInit(WDFDEVICE Device)
{
    UNREFERENCED_PARAMETER(Device);
    LOG("SelfManagedIoInit\n");
    return STATUS_SUCCESS;
}

static NTSTATUS ProbeSelfManagedIoSuspend(WDFDEVICE Device)
{
    UNREFERENCED_PARAMETER(Device);
    LOG("SelfManagedIoSuspend\n");
    return STATUS_SUCCESS;
}

static NTSTATUS ProbeSelfManagedIoRestart(WDFDEVICE Device)
{
    UNREFERENCED_PARAMETER(Device);
    LOG("SelfManagedIoRestart\n");
    return STATUS_SUCCESS;
}

static VOID ProbeSelfManagedIoFlush(WDFDEVICE Device)
{
    UNREFERENCED_PARAMETER(Device);
    LOG("SelfManagedIoFlush\n");
}

static VOID ProbeSelfManagedIoCleanup(WDFDEVICE Device)
{
    UNREFERENCED_PARAMETER(Device);
    LOG("SelfManagedIoCleanup\n");
}

static VOID ProbeSurpriseRemoval(WDFDEVICE Device)
{
    UNREFERENCED_PARAMETER(Device);
    LOG("SurpriseRemoval\n");
}

static VOID ProbeAddChildWork(WDFWORKITEM WorkItem)
{
    WDFDEVICE device = ProbeGetWork(WorkItem)->Device;
    PROBE_CHILD child;
    WDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER_INIT(&child.Header, sizeof(child));
    child.SerialNo = 4097;
    for (int i = 0; i < 2; i++) {
        NTSTATUS status = WdfChildListAddOrUpdateChildDescriptionAsPresent(
            WdfFdoGetDefaultChildList(device), &child.Header, NULL);
        LOG("AddChild(0x%x)\n", (ULONG)status);
    }
}

static NTSTATUS ProbeCreateChild(WDFCHILDLIST ChildList,
                                 PWDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER Description,
                                 PWDFDEVICE_INIT ChildInit)
{
    DECLARE_CONST_UNICODE_STRING(hardwareId, L"PROBE\\CHILD");
    WDF_PNPPOWER_EVENT_CALLBACKS pnp;
    WDF_IO_QUEUE_CONFIG queueConfig;
    WDFDEVICE child;
    NTSTATUS status;

    UNREFERENCED_PARAMETER(ChildList);
    LOG("CreateChild(%u)\n", ((PROBE_CHILD*)Description)->SerialNo);
    status = WdfPdoInitAssignDeviceID(ChildInit, &hardwareId);
    if (NT_SUCCESS(status)) {
        status = WdfPdoInitAddHardwareID(ChildInit, &hardwareId);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (g_AllowForward) {
        WdfPdoInitAllowForwardingRequestToParent(ChildInit);
    }
    WDF_PNPPOWER_EVENT_CALLBACKS_INIT(&pnp);
    pnp.EvtDevicePrepareHardware = ProbeChildPrepareHardware;
    pnp.EvtDeviceReleaseHardware = ProbeChildReleaseHardware;
    WdfDeviceInitSetPnpPowerEventCallbacks(ChildInit, &pnp);
    status = WdfDeviceCreate(&ChildInit, WDF_NO_OBJECT_ATTRIBUTES, &child);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    WDF_IO_QUEUE_CONFIG_INIT_DEFAULT_QUEUE(&queueConfig, WdfIoQueueDispatchParallel);
    queueConfig.EvtIoDeviceControl = ProbeChildDeviceControl;
    queueConfig.PowerManaged = WdfFalse;
    return WdfIoQueueCreate(child, &queueConfig, WDF_NO_OBJECT_ATTRIBUTES, WDF_NO_HANDLE);
}

static NTSTATUS ProbeChildPrepareHardware(WDFDEVICE Device, WDFCMRESLIST Raw,
                                          WDFCMRESLIST Translated)
{
    UNREFERENCED_PARAMETER(Device);
    UNREFERENCED_PARAMETER(Raw);
    UNREFERENCED_PARAMETER(Translated);
    LOG("ChildPrepareHardware\n");
    return STATUS_SUCCESS;
}

static NTSTATUS ProbeChildReleaseHardware(WDFDEVICE Device, WDFCMRESLIST Translated)
{
    UNREFERENCED_PARAMETER(Device);
    UNREFERENCED_PARAMETER(Translated);
    LOG("ChildReleaseHardware\n");
    return STATUS_SUCCESS;
}

static VOID ProbeChildDeviceControl(WDFQUEUE Queue, WDFREQUEST Request, size_t OutputBufferLength,
                                    size_t InputBufferLength, ULONG IoControlCode)
{
    WDF_REQUEST_FORWARD_OPTIONS options;
    WDFDEVICE parent = WdfPdoGetParent(WdfIoQueueGetDevice(Queue));

    UNREFERENCED_PARAMETER(OutputBufferLength);
    UNREFERENCED_PARAMETER(InputBufferLength);
    UNREFERENCED_PARAMETER(IoControlCode);
    WDF_REQUEST_FORWARD_OPTIONS_INIT(&options);
    NTSTATUS status =
        WdfRequestForwardToParentDeviceIoQueue(Request, WdfDeviceGetDefaultQueue(parent), &options);
    if (!NT_SUCCESS(status)) {
        WdfRequestComplete(Request, status);
    }
}

static VOID ProbeEcho(WDFREQUEST Request)
{
    PUCHAR in;
    PUCHAR out;
    size_t inLength;
    size_t outLength;
    UCHAR copy[64];

    NTSTATUS status = WdfRequestRetrieveInputBuffer(Request, 1, (PVOID*)&in, &inLength);
    if (NT_SUCCESS(status)) {
        status = WdfRequestRetrieveOutputBuffer(Request, inLength, (PVOID*)&out, &outLength);
    }
    if (!NT_SUCCESS(status) || inLength > sizeof(copy)) {
        WdfRequestComplete(Request, NT_SUCCESS(status) ? STATUS_INVALID_PARAMETER : status);
        return;
    }
    // Input and output share one system buffer: read all of the input first.
    RtlCopyMemory(copy, in, inLength);
    for (size_t i = 0; i < inLength; i++) {
        out[i] = copy[inLength - 1 - i];
    }
    WdfRequestCompleteWithInformation(Request, STATUS_SUCCESS, inLength);
}

static VOID ProbeDeviceControl(WDFQUEUE Queue, WDFREQUEST Request, size_t OutputBufferLength,
                               size_t InputBufferLength, ULONG IoControlCode)
{
    WDFDEVICE device = WdfIoQueueGetDevice(Queue);
    PPROBE_CONTEXT context = ProbeGetContext(device);
    WDFREQUEST parked;
    NTSTATUS status = STATUS_SUCCESS;
    PVOID out;
    KSPIN_LOCK spin;
    KIRQL irql;
    WDFWAITLOCK lock;

    UNREFERENCED_PARAMETER(OutputBufferLength);
    UNREFERENCED_PARAMETER(InputBufferLength);
    switch (IoControlCode) {
    case IOCTL_PROBE_ECHO:
        ProbeEcho(Request);
        return;
    case IOCTL_PROBE_PARK:
    case IOCTL_PROBE_COMPLETE_PARKED:
        status = WdfRequestForwardToIoQueue(Request, context->Parked);
        if (!NT_SUCCESS(status)) {
            break;
        }
        if (IoControlCode == IOCTL_PROBE_COMPLETE_PARKED) {
            WdfRequestComplete(Request, STATUS_SUCCESS);
        }
        return;
    case IOCTL_PROBE_RETRIEVE:
        status = WdfIoQueueRetrieveNextRequest(context->Parked, &parked);
        if (NT_SUCCESS(status)) {
            WdfRequestComplete(parked, STATUS_SUCCESS);
        }
        break;
    case IOCTL_PROBE_HOLD:
        context->Held = Request;
        return;
    case IOCTL_PROBE_RELEASE:
        if (context->Held) {
            WdfRequestComplete(context->Held, STATUS_SUCCESS);
            context->Held = NULL;
        }
        break;
    case IOCTL_PROBE_WHERE:
        status = WdfRequestRetrieveOutputBuffer(Request, sizeof(PROBE_WHERE), &out, NULL);
        if (NT_SUCCESS(status)) {
            ((PROBE_WHERE*)out)->Thread = (ULONG64)KeGetCurrentThread();
            ((PROBE_WHERE*)out)->Irql = KeGetCurrentIrql();
            WdfRequestCompleteWithInformation(Request, status, sizeof(PROBE_WHERE));
            return;
        }
        break;
    case IOCTL_PROBE_LOADS:
        status = WdfRequestRetrieveOutputBuffer(Request, sizeof(ULONG), &out, NULL);
        if (NT_SUCCESS(status)) {
            *(PULONG)out = g_Loads;
            WdfRequestCompleteWithInformation(Request, status, sizeof(ULONG));
            return;
        }
        break;
    case IOCTL_PROBE_ADD_CHILD:
        WdfWorkItemEnqueue(context->ChildWork);
        break;
    case IOCTL_PROBE_DOUBLE_COMPLETE:
        WdfRequestComplete(Request, STATUS_SUCCESS);
        break;
    case IOCTL_PROBE_RAISED_IRQL:
        WdfRequestComplete(Request, STATUS_SUCCESS);
        KeRaiseIrql(DISPATCH_LEVEL, &irql);
        return;
    case IOCTL_PROBE_SPIN_LOCK_HELD:
        WdfRequestComplete(Request, STATUS_SUCCESS);
        KeInitializeSpinLock(&spin);
        KeAcquireSpinLock(&spin, &irql);
        return;
    case IOCTL_PROBE_LEAK_POOL:
        if (!ExAllocatePoolWithTag(NonPagedPoolNx, 16, PROBE_POOL_TAG)) {
            status = STATUS_INSUFFICIENT_RESOURCES;
        }
        break;
    case IOCTL_PROBE_USE_DELETED:
        status = WdfWaitLockCreate(WDF_NO_OBJECT_ATTRIBUTES, &lock);
        if (NT_SUCCESS(status)) {
            WdfObjectDelete(lock);
            WdfWaitLockAcquire(lock, NULL);
        }
        break;
    default:
        status = STATUS_INVALID_DEVICE_REQUEST;
        break;
    }
    WdfRequestComplete(Request, status);
}
