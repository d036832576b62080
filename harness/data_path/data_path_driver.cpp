// The data-path test driver: device set-up as the driver's lifecycle code does it (the UART
// target, the requests, the spin locks, the signals, AckBuffer, the manual read queue, both
// threads, the read resources), and its stop order at release.
#include <ntddk.h>
#include <wdf.h>

#include <initguid.h>

#include "harness/data_path/data_path.h"
#include "link/device/command.h"
#include "read/read.h"
#include "uart/line.h"
#include "uart/uart.h"

static FdoExtension* g_Extension;
// The processing thread's object (the read thread's is in the context, where the rate
// switch replaces it): a thread may still be on its way out of this image's code after its
// finish signal, so the stopper also waits for the thread itself before the image can go.
static PVOID g_ProcessThread;

extern "C" DRIVER_INITIALIZE DriverEntry;
static EVT_WDF_DRIVER_DEVICE_ADD DataPathDeviceAdd;
static EVT_WDF_DEVICE_PREPARE_HARDWARE DataPathPrepareHardware;
static EVT_WDF_DEVICE_RELEASE_HARDWARE DataPathReleaseHardware;
static EVT_WDF_DEVICE_SELF_MANAGED_IO_INIT DataPathSelfManagedIoInit;
static EVT_WDF_DEVICE_SELF_MANAGED_IO_CLEANUP DataPathSelfManagedIoCleanup;
static EVT_WDF_IO_QUEUE_IO_DEVICE_CONTROL DataPathDeviceControl;

static FdoExtension* DataPathExtension()
{
    return g_Extension;
}

// In the order of the table's fields.
static const DATA_PATH_OPS g_Ops = {
    DataPathExtension,    xfer_hci_pkt_core,     hci_write_mem_core,  hci_read_mem_core,
    read_chip_ctrl_byte,  set_chip_ctrl_byte,    set_hci_endian_mode, SerialSendIoSync,
    SerialReadFromSync,   HalReadFromDeviceSync, H4DownloadPatchCode, start_gps,
    set_nmea_output,      set_output_option,     hci_command_agps_tx, hci_command_geofence,
    hci_command_geofence, change_baudrate,
};

EXTERN_C const DATA_PATH_OPS* DataPathOps()
{
    return &g_Ops;
}

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    WDF_DRIVER_CONFIG config;

    WDF_DRIVER_CONFIG_INIT(&config, DataPathDeviceAdd);
    config.DriverPoolTag = DRIVER_POOL_TAG;
    return WdfDriverCreate(DriverObject, RegistryPath, WDF_NO_OBJECT_ATTRIBUTES, &config,
                           WDF_NO_HANDLE);
}

static NTSTATUS DataPathDeviceAdd(WDFDRIVER Driver, PWDFDEVICE_INIT DeviceInit)
{
    WDF_PNPPOWER_EVENT_CALLBACKS pnp;
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_IO_QUEUE_CONFIG queueConfig;
    WDFDEVICE device;

    UNREFERENCED_PARAMETER(Driver);
    WDF_PNPPOWER_EVENT_CALLBACKS_INIT(&pnp);
    pnp.EvtDevicePrepareHardware = DataPathPrepareHardware;
    pnp.EvtDeviceReleaseHardware = DataPathReleaseHardware;
    pnp.EvtDeviceSelfManagedIoInit = DataPathSelfManagedIoInit;
    pnp.EvtDeviceSelfManagedIoCleanup = DataPathSelfManagedIoCleanup;
    WdfDeviceInitSetPnpPowerEventCallbacks(DeviceInit, &pnp);

    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, FdoExtension);
    NTSTATUS status = WdfDeviceCreate(&DeviceInit, &attributes, &device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    FdoExtension* ext = FdoGetExtension(device);
    ext->Device = device;

    WDF_IO_QUEUE_CONFIG_INIT_DEFAULT_QUEUE(&queueConfig, WdfIoQueueDispatchParallel);
    queueConfig.EvtIoDeviceControl = DataPathDeviceControl;
    status = WdfIoQueueCreate(device, &queueConfig, WDF_NO_OBJECT_ATTRIBUTES, WDF_NO_HANDLE);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    g_Extension = ext;
    return WdfDeviceCreateDeviceInterface(device, &GUID_DEVINTERFACE_DATA_PATH, NULL);
}

static NTSTATUS OpenUart(FdoExtension* ext)
{
    WDF_IO_TARGET_OPEN_PARAMS params;
    DECLARE_CONST_UNICODE_STRING(name, DATA_PATH_UART_NAME);

    NTSTATUS status = WdfIoTargetCreate(ext->Device, WDF_NO_OBJECT_ATTRIBUTES, &ext->UartIoTarget);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    WDF_IO_TARGET_OPEN_PARAMS_INIT_OPEN_BY_NAME(&params, &name, STANDARD_RIGHTS_ALL);
    status = WdfIoTargetOpen(ext->UartIoTarget, &params);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = ext->Device;
    status = WdfRequestCreate(&attributes, ext->UartIoTarget, &ext->UartRequest);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    KeInitializeSpinLock(&ext->PacketLock);
    return STATUS_SUCCESS;
}

// What device initialisation sets up (the line is already configured by the test); anything
// left half made is released at cleanup.
static NTSTATUS StartDataPath(FdoExtension* ext)
{
    WDF_IO_QUEUE_CONFIG queueConfig;
    WDF_IO_QUEUE_CONFIG_INIT(&queueConfig, WdfIoQueueDispatchManual);
    NTSTATUS status =
        WdfIoQueueCreate(ext->Device, &queueConfig, WDF_NO_OBJECT_ATTRIBUTES, &ext->ReadEventQueue);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (OsAllocateSignal(&ext->DeviceAssocFinishSignal, "DeviceAssocFinishSignal") ||
        OsAllocateSignal(&ext->DataFinishSignal, "DataFinishSignal") ||
        OsAllocateSignal(&ext->Threadread_FinishSignal, "Threadread_FinishSignal") ||
        OsAllocateSignal(&ext->Threadprocess_FinishSignal, "Threadprocess_FinishSignal")) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ext->Thread_flag = 1;
    ext->Threadread_flag = 1;
    ext->ReadEnable_flag = 1;
    ext->AckBuffer =
        (PUCHAR)ExAllocatePoolWithTag(NonPagedPoolNx, FDO_ACK_BUFFER_SIZE, DRIVER_POOL_TAG);
    if (ext->AckBuffer == NULL) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    ext->AckBufferSize = FDO_ACK_BUFFER_SIZE;
    InitializeListHead(&ext->ReadDataList);
    status = OsCreateThread(StartFunc_GPS, ext, 0, &ext->ReadThread);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return OsCreateThread(UART_ProcessReadQueue_GPS, ext, 0, &g_ProcessThread);
}

static NTSTATUS DataPathPrepareHardware(WDFDEVICE Device, WDFCMRESLIST Raw, WDFCMRESLIST Translated)
{
    UNREFERENCED_PARAMETER(Raw);
    UNREFERENCED_PARAMETER(Translated);
    FdoExtension* ext = FdoGetExtension(Device);
    NTSTATUS status = OpenUart(ext);
    return NT_SUCCESS(status) ? StartDataPath(ext) : status;
}

// The stop order: the target first, so the read ends as cancelled; the read thread before
// the processing thread, so no frame is queued once its consumer has gone.
static NTSTATUS DataPathReleaseHardware(WDFDEVICE Device, WDFCMRESLIST Translated)
{
    UNREFERENCED_PARAMETER(Translated);
    FdoExtension* ext = FdoGetExtension(Device);
    if (ext->UartIoTarget != NULL) {
        WdfIoTargetStop(ext->UartIoTarget, WdfIoTargetCancelSentIo);
    }
    if (ReadULongAcquire(&ext->Threadread_flag) == 1) {
        WriteULongRelease(&ext->Threadread_flag, 0);
        MvDbgPrint(DBG_ERROR, "Threadread_flag is NULL");
        // A rate switch that stopped half way left no read thread to wait for.
        if (ext->ReadThread != NULL) {
            (VOID) OsWaitForSignal(ext->Threadread_FinishSignal, 0);
            OsClearSignal(ext->Threadread_FinishSignal);
        }
    }
    OsWaitForThread(&ext->ReadThread);
    if (ReadULongAcquire(&ext->Thread_flag) == 1) {
        WriteULongRelease(&ext->Thread_flag, 0);
        MvDbgPrint(DBG_ERROR, "Thread_flag is NULL");
        OsSetSignal(ext->DataFinishSignal);
        (VOID) OsWaitForSignal(ext->Threadprocess_FinishSignal, 0);
        OsClearSignal(ext->Threadprocess_FinishSignal);
    }
    OsWaitForThread(&g_ProcessThread);
    return STATUS_SUCCESS;
}

static NTSTATUS DataPathSelfManagedIoInit(WDFDEVICE Device)
{
    return UART_AllocateReadResources(Device);
}

static VOID DataPathSelfManagedIoCleanup(WDFDEVICE Device)
{
    UART_FreeReadResources(Device);
    g_Extension = NULL;
}

static VOID ForwardRead(FdoExtension* ext, WDFREQUEST Request)
{
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&ext->PacketLock);
    NTSTATUS status = WdfRequestForwardToIoQueue(Request, ext->ReadEventQueue);
    if (NT_SUCCESS(status)) {
        InterlockedIncrement(&ext->ReadEventCount);
        InterlockedIncrement(&ext->DataQueueCount);
    }
    KeReleaseSpinLock(&ext->PacketLock, irql);
    if (!NT_SUCCESS(status)) {
        WdfRequestComplete(Request, status);
        return;
    }
    (VOID) UART_ProcessReadQueue(ext, 4, ext->ReadEventQueue, &ext->ReadEventCount,
                                 &ext->ReadDataList, &ext->ReadDataCount);
}

static VOID SendCommand(FdoExtension* ext, WDFREQUEST Request)
{
    PUCHAR in;
    size_t length;
    NTSTATUS status = WdfRequestRetrieveInputBuffer(Request, 2, (PVOID*)&in, &length);
    if (!NT_SUCCESS(status)) {
        WdfRequestComplete(Request, status);
        return;
    }
    UCHAR pid = in[0];
    UCHAR sid = in[1];
    WriteUCharRelease(&ext->CMD_Pid, pid);
    WriteUCharRelease(&ext->CMD_Sid, sid);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&ext->PacketLock);
    WritePointerRelease((PVOID volatile*)&ext->CMD_Request, Request);
    KeReleaseSpinLock(&ext->PacketLock, irql);

    // The frame is built from a copy: input and output share the system buffer, and the
    // answer may arrive while the write is still going on.
    UCHAR payload[256];
    USHORT n = (USHORT)(length - 2 < sizeof(payload) ? length - 2 : sizeof(payload));
    RtlCopyMemory(payload, in + 2, n);
    if (xfer_hci_pkt_core(ext, 0, 1, pid, sid, payload, n, NULL, 0) != 0) {
        irql = KeAcquireSpinLockRaiseToDpc(&ext->PacketLock);
        WDFREQUEST pending = ext->CMD_Request;
        WritePointerRelease((PVOID volatile*)&ext->CMD_Request, NULL);
        KeReleaseSpinLock(&ext->PacketLock, irql);
        if (pending != NULL) {
            WdfRequestComplete(pending, STATUS_UNSUCCESSFUL);
        }
    }
}

static VOID DataPathDeviceControl(WDFQUEUE Queue, WDFREQUEST Request, size_t OutputBufferLength,
                                  size_t InputBufferLength, ULONG IoControlCode)
{
    UNREFERENCED_PARAMETER(OutputBufferLength);
    UNREFERENCED_PARAMETER(InputBufferLength);
    FdoExtension* ext = FdoGetExtension(WdfIoQueueGetDevice(Queue));
    switch (IoControlCode) {
    case IOCTL_DATA_PATH_READ:
        ForwardRead(ext, Request);
        break;
    case IOCTL_DATA_PATH_SEND_CMD:
        SendCommand(ext, Request);
        break;
    default:
        WdfRequestComplete(Request, STATUS_INVALID_DEVICE_REQUEST);
        break;
    }
}
