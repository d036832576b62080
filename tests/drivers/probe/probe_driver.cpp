// A tiny driver that exercises the host: every callback logs "probe: <event>", and its
// control codes each show one framework behaviour or break one verifier rule on purpose.
#include <ntddk.h>
#include <wdf.h>

#include <initguid.h>

#include "probe.h"

typedef struct _PROBE_CONTEXT {
    WDFQUEUE Parked;
    WDFQUEUE Relay;
    WDFREQUEST Cancelable;
    PVOID Block; // what SelfManagedIoInit allocates
} PROBE_CONTEXT, *PPROBE_CONTEXT;
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(PROBE_CONTEXT, ProbeGetContext)

typedef struct _PROBE_CHILD {
    WDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER Header;
    ULONG SerialNo;
} PROBE_CHILD;

static ULONG g_Loads;
static ULONG g_QueuePowerManaged = 1;
static ULONG g_AllowForward = 1;
static ULONG g_Fail;
static ULONG g_DoubleFree;
static ULONG g_VetoRemove;
static ULONG g_RelayPassive;
static KEVENT g_Never; // what the probe's thread waits for: nothing sets it (a bug kept on purpose)

#define LOG(...) DbgPrint("probe: " __VA_ARGS__)
// The power state as the log shows it: D0..D3, and D9 for the final D3 of a removal.
#define POWER_STATE(s) ((s) == WdfPowerDeviceD3Final ? 9 : (s)-1)

extern "C" DRIVER_INITIALIZE DriverEntry;
static EVT_WDF_DRIVER_DEVICE_ADD ProbeDeviceAdd;
static EVT_WDF_OBJECT_CONTEXT_CLEANUP ProbeDriverCleanup;
static EVT_WDF_DEVICE_PREPARE_HARDWARE ProbePrepareHardware;
static EVT_WDF_DEVICE_RELEASE_HARDWARE ProbeReleaseHardware;
static EVT_WDF_DEVICE_D0_ENTRY ProbeD0Entry;
static EVT_WDF_DEVICE_D0_EXIT ProbeD0Exit;
static EVT_WDF_DEVICE_SELF_MANAGED_IO_INIT ProbeSelfManagedIoInit;
static EVT_WDF_DEVICE_SELF_MANAGED_IO_RESTART ProbeSelfManagedIoRestart;
static EVT_WDF_DEVICE_SELF_MANAGED_IO_SUSPEND ProbeSelfManagedIoSuspend;
static EVT_WDF_DEVICE_SELF_MANAGED_IO_FLUSH ProbeSelfManagedIoFlush;
static EVT_WDF_DEVICE_SELF_MANAGED_IO_CLEANUP ProbeSelfManagedIoCleanup;
static EVT_WDF_DEVICE_SURPRISE_REMOVAL ProbeSurpriseRemoval;
static EVT_WDF_DEVICE_QUERY_REMOVE ProbeQueryRemove;
static EVT_WDF_IO_QUEUE_IO_DEVICE_CONTROL ProbeDeviceControl;
static EVT_WDF_IO_QUEUE_IO_DEVICE_CONTROL ProbeRelayControl;
static EVT_WDF_IO_QUEUE_IO_STOP ProbeIoStop;
static EVT_WDF_IO_QUEUE_IO_RESUME ProbeIoResume;
static EVT_WDF_REQUEST_CANCEL ProbeRequestCancel;
KSTART_ROUTINE ProbeThread; // exported, so that reports name the thread
static EVT_WDF_IO_QUEUE_IO_DEVICE_CONTROL ProbeChildDeviceControl;
static EVT_WDF_CHILD_LIST_CREATE_DEVICE ProbeCreateChild;
static EVT_WDF_DEVICE_RELEASE_HARDWARE ProbeChildReleaseHardware;

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
    DECLARE_CONST_UNICODE_STRING(fail, L"Fail");
    DECLARE_CONST_UNICODE_STRING(doubleFree, L"DoubleFree");
    DECLARE_CONST_UNICODE_STRING(vetoRemove, L"VetoRemove");
    DECLARE_CONST_UNICODE_STRING(relayPassive, L"RelayPassive");

    g_Loads++;
    WDF_DRIVER_CONFIG_INIT(&config, ProbeDeviceAdd);
    config.DriverPoolTag = PROBE_POOL_TAG;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.EvtCleanupCallback = ProbeDriverCleanup;
    NTSTATUS status = WdfDriverCreate(DriverObject, RegistryPath, &attributes, &config, &driver);
    if (NT_SUCCESS(status)) {
        g_QueuePowerManaged = ReadParameter(driver, &powerManaged, 1);
        g_AllowForward = ReadParameter(driver, &allowForward, 1);
        g_Fail = ReadParameter(driver, &fail, 0);
        g_DoubleFree = ReadParameter(driver, &doubleFree, 0);
        g_VetoRemove = ReadParameter(driver, &vetoRemove, 0);
        g_RelayPassive = ReadParameter(driver, &relayPassive, 0);
        KeInitializeEvent(&g_Never, NotificationEvent, FALSE);
        LOG("DriverEntry\n");
    }
    return status;
}

static VOID ProbeDriverCleanup(WDFOBJECT)
{
    LOG("DriverCleanup\n");
}

static NTSTATUS ProbeDeviceAdd(WDFDRIVER, PWDFDEVICE_INIT DeviceInit)
{
    WDF_PNPPOWER_EVENT_CALLBACKS pnp;
    WDF_CHILD_LIST_CONFIG children;
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_IO_QUEUE_CONFIG queueConfig;
    WDFDEVICE device;
    NTSTATUS status;

    LOG("DeviceAdd\n");
    WDF_PNPPOWER_EVENT_CALLBACKS_INIT(&pnp);
    pnp.EvtDevicePrepareHardware = ProbePrepareHardware;
    pnp.EvtDeviceReleaseHardware = ProbeReleaseHardware;
    pnp.EvtDeviceD0Entry = ProbeD0Entry;
    pnp.EvtDeviceD0Exit = ProbeD0Exit;
    pnp.EvtDeviceSelfManagedIoInit = ProbeSelfManagedIoInit;
    pnp.EvtDeviceSelfManagedIoRestart = ProbeSelfManagedIoRestart;
    pnp.EvtDeviceSelfManagedIoSuspend = ProbeSelfManagedIoSuspend;
    pnp.EvtDeviceSelfManagedIoFlush = ProbeSelfManagedIoFlush;
    pnp.EvtDeviceSelfManagedIoCleanup = ProbeSelfManagedIoCleanup;
    pnp.EvtDeviceSurpriseRemoval = ProbeSurpriseRemoval;
    pnp.EvtDeviceQueryRemove = ProbeQueryRemove;
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
    queueConfig.EvtIoStop = ProbeIoStop;
    queueConfig.EvtIoResume = ProbeIoResume;
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
    WDF_IO_QUEUE_CONFIG_INIT(&queueConfig, WdfIoQueueDispatchParallel);
    queueConfig.EvtIoDeviceControl = ProbeRelayControl;
    queueConfig.PowerManaged = WdfFalse;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    if (g_RelayPassive) {
        attributes.ExecutionLevel = WdfExecutionLevelPassive;
    }
    status = WdfIoQueueCreate(device, &queueConfig, &attributes, &context->Relay);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return WdfDeviceCreateDeviceInterface(device, &GUID_DEVINTERFACE_PROBE, NULL);
}

static NTSTATUS ProbePrepareHardware(WDFDEVICE, WDFCMRESLIST, WDFCMRESLIST)
{
    LOG("PrepareHardware\n");
    return g_Fail == PROBE_FAIL_PREPARE_HARDWARE ? STATUS_DEVICE_NOT_READY : STATUS_SUCCESS;
}

// Logs whether the probe's interface is still enabled: the framework disables it only after.
static NTSTATUS ProbeReleaseHardware(WDFDEVICE, WDFCMRESLIST)
{
    PZZWSTR links = NULL;
    BOOLEAN enabled = FALSE;

    if (NT_SUCCESS(IoGetDeviceInterfaces(&GUID_DEVINTERFACE_PROBE, NULL, 0, &links))) {
        enabled = links[0] != 0;
        ExFreePool(links);
    }
    LOG("ReleaseHardware%s\n", enabled ? "(interface enabled)" : "");
    return STATUS_SUCCESS;
}

static NTSTATUS ProbeD0Entry(WDFDEVICE, WDF_POWER_DEVICE_STATE PreviousState)
{
    LOG("D0Entry(D%d)\n", POWER_STATE(PreviousState));
    if (g_Fail == PROBE_FAIL_WAKE && PreviousState != WdfPowerDeviceD3Final) {
        return STATUS_DEVICE_NOT_READY;
    }
    return STATUS_SUCCESS;
}

static NTSTATUS ProbeD0Exit(WDFDEVICE, WDF_POWER_DEVICE_STATE TargetState)
{
    LOG("D0Exit(D%d)\n", POWER_STATE(TargetState));
    return STATUS_SUCCESS;
}

static NTSTATUS ProbeSelfManagedIoInit(WDFDEVICE Device)
{
    PPROBE_CONTEXT context = ProbeGetContext(Device);

    LOG("SelfManagedIoInit\n");
    context->Block = ExAllocatePoolWithTag(NonPagedPoolNx, 32, PROBE_POOL_TAG);
    if (!context->Block) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    if (g_Fail != PROBE_FAIL_SELF_MANAGED_IO_INIT) {
        return STATUS_SUCCESS;
    }
    ExFreePoolWithTag(context->Block, PROBE_POOL_TAG);
    if (!g_DoubleFree) {
        context->Block = NULL;
    }
    return STATUS_DEVICE_NOT_READY;
}

static NTSTATUS ProbeSelfManagedIoRestart(WDFDEVICE)
{
    LOG("SelfManagedIoRestart\n");
    return STATUS_SUCCESS;
}

static NTSTATUS ProbeSelfManagedIoSuspend(WDFDEVICE)
{
    LOG("SelfManagedIoSuspend\n");
    return STATUS_SUCCESS;
}

static VOID ProbeSelfManagedIoFlush(WDFDEVICE)
{
    LOG("SelfManagedIoFlush\n");
}

static VOID ProbeSelfManagedIoCleanup(WDFDEVICE Device)
{
    PPROBE_CONTEXT context = ProbeGetContext(Device);

    LOG("SelfManagedIoCleanup\n");
    if (context->Block) {
        ExFreePoolWithTag(context->Block, PROBE_POOL_TAG);
        context->Block = NULL;
    }
}

static VOID ProbeSurpriseRemoval(WDFDEVICE)
{
    LOG("SurpriseRemoval\n");
}

static NTSTATUS ProbeQueryRemove(WDFDEVICE)
{
    LOG("QueryRemove\n");
    return g_VetoRemove ? STATUS_UNSUCCESSFUL : STATUS_SUCCESS;
}

// The cancelable request is acknowledged on a power-down; every other one is left alone.
static VOID ProbeIoStop(WDFQUEUE Queue, WDFREQUEST Request, ULONG ActionFlags)
{
    LOG("IoStop(0x%x)\n", ActionFlags);
    if (Request == ProbeGetContext(WdfIoQueueGetDevice(Queue))->Cancelable &&
        (ActionFlags & WdfRequestStopActionSuspend)) {
        WdfRequestStopAcknowledge(Request, FALSE);
    }
}

static VOID ProbeIoResume(WDFQUEUE, WDFREQUEST)
{
    LOG("IoResume\n");
}

static VOID ProbeRequestCancel(WDFREQUEST Request)
{
    LOG("RequestCancel\n");
    WdfRequestComplete(Request, STATUS_CANCELLED);
}

VOID ProbeThread(PVOID)
{
    KeWaitForSingleObject(&g_Never, Executive, KernelMode, FALSE, NULL);
}

// Pageable: it assumes PASSIVE_LEVEL, which only the relay queue's execution level grants.
static VOID ProbeRelayControl(WDFQUEUE, WDFREQUEST Request, size_t, size_t, ULONG)
{
    PAGED_CODE();
    WdfRequestComplete(Request, STATUS_SUCCESS);
}

// Reports the child twice: the second report finds it present.
static VOID ProbeAddChild(WDFDEVICE Device)
{
    PROBE_CHILD child;
    WDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER_INIT(&child.Header, sizeof(child));
    child.SerialNo = 4097;
    for (int i = 0; i < 2; i++) {
        NTSTATUS status = WdfChildListAddOrUpdateChildDescriptionAsPresent(
            WdfFdoGetDefaultChildList(Device), &child.Header, NULL);
        LOG("AddChild(0x%x)\n", (ULONG)status);
    }
}

static NTSTATUS ProbeCreateChild(WDFCHILDLIST,
                                 PWDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER Description,
                                 PWDFDEVICE_INIT ChildInit)
{
    DECLARE_CONST_UNICODE_STRING(deviceId, L"PROBE\\CHILD");
    WDF_PNPPOWER_EVENT_CALLBACKS pnp;
    WDF_IO_QUEUE_CONFIG queueConfig;
    WDFDEVICE child;
    NTSTATUS status;

    LOG("CreateChild(%u)\n", ((PROBE_CHILD*)Description)->SerialNo);
    status = WdfPdoInitAssignDeviceID(ChildInit, &deviceId);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (g_AllowForward) {
        WdfPdoInitAllowForwardingRequestToParent(ChildInit);
    }
    WDF_PNPPOWER_EVENT_CALLBACKS_INIT(&pnp);
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

static NTSTATUS ProbeChildReleaseHardware(WDFDEVICE, WDFCMRESLIST)
{
    LOG("ChildReleaseHardware\n");
    return STATUS_SUCCESS;
}

static VOID ProbeChildDeviceControl(WDFQUEUE Queue, WDFREQUEST Request, size_t, size_t, ULONG)
{
    WDF_REQUEST_FORWARD_OPTIONS options;
    WDFDEVICE parent = WdfPdoGetParent(WdfIoQueueGetDevice(Queue));

    WDF_REQUEST_FORWARD_OPTIONS_INIT(&options);
    NTSTATUS status =
        WdfRequestForwardToParentDeviceIoQueue(Request, WdfDeviceGetDefaultQueue(parent), &options);
    if (!NT_SUCCESS(status)) {
        WdfRequestComplete(Request, status);
    }
}

// Output = each input byte plus one (in place: both lie in one system buffer), then 0xFF to
// the end of the output buffer. Only the input's length is reported as Information.
static VOID ProbeEcho(WDFREQUEST Request)
{
    PUCHAR in;
    PUCHAR out;
    size_t length;
    size_t outLength;

    NTSTATUS status = WdfRequestRetrieveInputBuffer(Request, 1, (PVOID*)&in, &length);
    if (NT_SUCCESS(status)) {
        status = WdfRequestRetrieveOutputBuffer(Request, length, (PVOID*)&out, &outLength);
    }
    if (!NT_SUCCESS(status)) {
        WdfRequestComplete(Request, status);
        return;
    }
    for (size_t i = 0; i < outLength; i++) {
        out[i] = i < length ? (UCHAR)(in[i] + 1) : 0xFF;
    }
    WdfRequestCompleteWithInformation(Request, STATUS_SUCCESS, length);
}

static VOID ProbeDeviceControl(WDFQUEUE Queue, WDFREQUEST Request, size_t OutputBufferLength,
                               size_t, ULONG IoControlCode)
{
    PPROBE_CONTEXT context = ProbeGetContext(WdfIoQueueGetDevice(Queue));
    NTSTATUS status = STATUS_SUCCESS;
    PROBE_STATE* state;
    KSPIN_LOCK spin;
    KIRQL irql;
    HANDLE thread;

    switch (IoControlCode) {
    case IOCTL_PROBE_ECHO:
        ProbeEcho(Request);
        return;
    case IOCTL_PROBE_COMPLETE_PARKED:
        status = WdfRequestForwardToIoQueue(Request, context->Parked);
        if (!NT_SUCCESS(status)) {
            break;
        }
        WdfRequestComplete(Request, STATUS_SUCCESS);
        return;
    case IOCTL_PROBE_HOLD:
        return;
    case IOCTL_PROBE_STATE:
        status = WdfRequestRetrieveOutputBuffer(Request, sizeof(*state), (PVOID*)&state, NULL);
        if (NT_SUCCESS(status)) {
            state->Loads = g_Loads;
            WdfRequestCompleteWithInformation(Request, status, sizeof(*state));
            return;
        }
        break;
    case IOCTL_PROBE_ADD_CHILD:
        ProbeAddChild(WdfIoQueueGetDevice(Queue));
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
    case IOCTL_PROBE_HOLD_CANCELABLE:
        context->Cancelable = Request;
        status = WdfRequestMarkCancelableEx(Request, ProbeRequestCancel);
        if (NT_SUCCESS(status)) {
            return;
        }
        break;
    case IOCTL_PROBE_RELAY_RAISED:
        KeInitializeSpinLock(&spin);
        KeAcquireSpinLock(&spin, &irql);
        status = WdfRequestForwardToIoQueue(Request, context->Relay);
        KeReleaseSpinLock(&spin, irql);
        if (NT_SUCCESS(status)) {
            return;
        }
        break;
    case IOCTL_PROBE_OVERSTATE:
        WdfRequestCompleteWithInformation(Request, STATUS_SUCCESS, OutputBufferLength + 1);
        return;
    case IOCTL_PROBE_COMPLETE_CANCELABLE:
        status = WdfRequestMarkCancelableEx(Request, ProbeRequestCancel);
        break;
    case IOCTL_PROBE_START_THREAD:
        status =
            PsCreateSystemThread(&thread, THREAD_ALL_ACCESS, NULL, NULL, NULL, ProbeThread, NULL);
        if (NT_SUCCESS(status)) {
            ZwClose(thread);
        }
        break;
    case IOCTL_PROBE_ASSERT:
        NT_ASSERT(IoControlCode != IOCTL_PROBE_ASSERT);
        break;
    case IOCTL_PROBE_LEAK_POOL:
        if (!ExAllocatePoolWithTag(NonPagedPoolNx, 16, PROBE_POOL_TAG)) {
            status = STATUS_INSUFFICIENT_RESOURCES;
        }
        break;
    default:
        status = STATUS_INVALID_DEVICE_REQUEST;
        break;
    }
    WdfRequestComplete(Request, status);
}
