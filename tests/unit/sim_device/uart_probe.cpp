// A driver image for the device tests: it opens the UART that its connection resource names,
// through the Resource Hub, and sends what its control codes ask for synchronously with a
// timeout, as the GPS driver does.
#include <ntddk.h>
#include <wdf.h>
#define RESHUB_USE_HELPER_ROUTINES
#include <ntddser.h>
#include <reshub.h>

#include "uart_probe.h"

typedef struct _UPROBE_CONTEXT {
    WDFIOTARGET Uart;
    ULONG BaudRate;
} UPROBE_CONTEXT, *PUPROBE_CONTEXT;
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(UPROBE_CONTEXT, UprobeGetContext)

extern "C" DRIVER_INITIALIZE DriverEntry;
static EVT_WDF_DRIVER_DEVICE_ADD UprobeDeviceAdd;
static EVT_WDF_DEVICE_PREPARE_HARDWARE UprobePrepareHardware;
static EVT_WDF_IO_QUEUE_IO_DEVICE_CONTROL UprobeDeviceControl;

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath)
{
    WDF_DRIVER_CONFIG config;
    WDF_DRIVER_CONFIG_INIT(&config, UprobeDeviceAdd);
    return WdfDriverCreate(DriverObject, RegistryPath, WDF_NO_OBJECT_ATTRIBUTES, &config,
                           WDF_NO_HANDLE);
}

static ULONG UprobeReadBaudRate(WDFDRIVER Driver)
{
    DECLARE_CONST_UNICODE_STRING(name, L"BaudRateIndex");
    WDFKEY key;
    ULONG value = 0; // none found: the test sees that
    if (NT_SUCCESS(WdfDriverOpenParametersRegistryKey(Driver, GENERIC_READ,
                                                      WDF_NO_OBJECT_ATTRIBUTES, &key))) {
        (VOID) WdfRegistryQueryULong(key, &name, &value);
        WdfRegistryClose(key);
    }
    return value;
}

static NTSTATUS UprobeDeviceAdd(WDFDRIVER Driver, PWDFDEVICE_INIT DeviceInit)
{
    WDF_PNPPOWER_EVENT_CALLBACKS pnp;
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_IO_QUEUE_CONFIG queue;
    WDFDEVICE device;

    PAGED_CODE();
    WDF_PNPPOWER_EVENT_CALLBACKS_INIT(&pnp);
    pnp.EvtDevicePrepareHardware = UprobePrepareHardware;
    WdfDeviceInitSetPnpPowerEventCallbacks(DeviceInit, &pnp);
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, UPROBE_CONTEXT);
    NTSTATUS status = WdfDeviceCreate(&DeviceInit, &attributes, &device);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    UprobeGetContext(device)->BaudRate = UprobeReadBaudRate(Driver);
    WDF_IO_QUEUE_CONFIG_INIT_DEFAULT_QUEUE(&queue, WdfIoQueueDispatchParallel);
    queue.EvtIoDeviceControl = UprobeDeviceControl;
    status = WdfIoQueueCreate(device, &queue, WDF_NO_OBJECT_ATTRIBUTES, WDF_NO_HANDLE);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return WdfDeviceCreateDeviceInterface(device, &GUID_DEVINTERFACE_UART_PROBE, NULL);
}

static NTSTATUS UprobePrepareHardware(WDFDEVICE Device, WDFCMRESLIST ResourcesRaw,
                                      WDFCMRESLIST ResourcesTranslated)
{
    PUPROBE_CONTEXT context = UprobeGetContext(Device);
    DECLARE_UNICODE_STRING_SIZE(path, RESOURCE_HUB_PATH_SIZE);
    WDF_IO_TARGET_OPEN_PARAMS params;
    PCM_PARTIAL_RESOURCE_DESCRIPTOR uart = NULL;

    UNREFERENCED_PARAMETER(ResourcesRaw);
    PAGED_CODE();
    for (ULONG i = 0; i < WdfCmResourceListGetCount(ResourcesTranslated); i++) {
        PCM_PARTIAL_RESOURCE_DESCRIPTOR d = WdfCmResourceListGetDescriptor(ResourcesTranslated, i);
        if (d->Type == CmResourceTypeConnection &&
            d->u.Connection.Class == CM_RESOURCE_CONNECTION_CLASS_SERIAL &&
            d->u.Connection.Type == CM_RESOURCE_CONNECTION_TYPE_SERIAL_UART) {
            uart = d;
        }
    }
    if (uart == NULL) {
        return STATUS_DEVICE_DOES_NOT_EXIST;
    }
    NTSTATUS status = RESOURCE_HUB_CREATE_PATH_FROM_ID(&path, uart->u.Connection.IdLowPart,
                                                       uart->u.Connection.IdHighPart);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    // The device's child: it is closed and deleted with the device.
    status = WdfIoTargetCreate(Device, WDF_NO_OBJECT_ATTRIBUTES, &context->Uart);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    WDF_IO_TARGET_OPEN_PARAMS_INIT_OPEN_BY_NAME(&params, &path, STANDARD_RIGHTS_ALL);
    status = WdfIoTargetOpen(context->Uart, &params);
    if (!NT_SUCCESS(status)) {
        WdfObjectDelete(context->Uart);
        context->Uart = NULL;
    }
    return status;
}

static VOID UprobeDeviceControl(WDFQUEUE Queue, WDFREQUEST Request, size_t OutputBufferLength,
                                size_t InputBufferLength, ULONG IoControlCode)
{
    PUPROBE_CONTEXT context = UprobeGetContext(WdfIoQueueGetDevice(Queue));
    WDF_MEMORY_DESCRIPTOR data;
    WDF_REQUEST_SEND_OPTIONS options;
    PVOID in = NULL;
    PUCHAR out = NULL;
    ULONG_PTR bytes = 0;
    UPROBE_READ read;
    UPROBE_RESULT result;

    UNREFERENCED_PARAMETER(InputBufferLength);
    NTSTATUS status = WdfRequestRetrieveOutputBuffer(Request, sizeof(ULONG), (PVOID*)&out, NULL);
    if (NT_SUCCESS(status) && IoControlCode == IOCTL_UPROBE_BAUD) {
        RtlCopyMemory(out, &context->BaudRate, sizeof(ULONG));
        WdfRequestCompleteWithInformation(Request, STATUS_SUCCESS, sizeof(ULONG));
        return;
    }
    if (NT_SUCCESS(status) &&
        (IoControlCode != IOCTL_UPROBE_READ || OutputBufferLength < sizeof result)) {
        status = STATUS_INVALID_PARAMETER;
    }
    if (NT_SUCCESS(status)) {
        status = WdfRequestRetrieveInputBuffer(Request, sizeof read, &in, NULL);
    }
    WDF_REQUEST_SEND_OPTIONS_INIT(&options, WDF_REQUEST_SEND_OPTION_TIMEOUT);
    if (NT_SUCCESS(status)) {
        // The system buffer is shared: take the input before the bytes read land on it.
        RtlCopyMemory(&read, in, sizeof read);
        WDF_MEMORY_DESCRIPTOR_INIT_BUFFER(&data, &read.Timeouts, sizeof read.Timeouts);
        WDF_REQUEST_SEND_OPTIONS_SET_TIMEOUT(&options, WDF_REL_TIMEOUT_IN_MS(1000));
        status = WdfIoTargetSendIoctlSynchronously(context->Uart, NULL, IOCTL_SERIAL_SET_TIMEOUTS,
                                                   &data, NULL, &options, NULL);
    }
    if (!NT_SUCCESS(status)) {
        WdfRequestComplete(Request, status);
        return;
    }
    WDF_MEMORY_DESCRIPTOR_INIT_BUFFER(&data, out + sizeof result,
                                      (ULONG)(OutputBufferLength - sizeof result));
    WDF_REQUEST_SEND_OPTIONS_SET_TIMEOUT(&options, WDF_REL_TIMEOUT_IN_MS(read.SendTimeoutMs));
    result.Status =
        WdfIoTargetSendReadSynchronously(context->Uart, NULL, &data, NULL, &options, &bytes);
    result.Bytes = (ULONG)bytes;
    RtlCopyMemory(out, &result, sizeof result);
    WdfRequestCompleteWithInformation(Request, STATUS_SUCCESS, sizeof result + bytes);
}
