// The child device: the one GPS function the bus enumerates once the chip has started, and
// the forwarding of its control requests to the parent's default queue.
#pragma once

#include "driver/driver.h"

#define PDO_HARDWARE_ID L"SerialBusWdk\\MVT_GPS"
#define PDO_HARDWARE_ID_CHARS 21 // with the terminating zero
#define PDO_SERIAL_NO 4097

// The child list's identification description. The framework copies it byte for byte (no
// copy or compare callbacks), so HardwareIds points at static storage.
struct PDO_IDENTIFICATION_DESCRIPTION {
    WDF_CHILD_IDENTIFICATION_DESCRIPTION_HEADER Header;
    ULONG SerialNo;
    size_t CchHardwareIds;
    PWCHAR HardwareIds;
};
static_assert(sizeof(PDO_IDENTIFICATION_DESCRIPTION) == 24, "the description is 24 bytes");

// Device type 0x41, METHOD_NEITHER: five codes the child forwards although the parent has no
// handler for them, so the parent answers them as unknown codes.
#define PDO_NEITHER_CODE(n) CTL_CODE(0x41, 0x100 + (n), METHOD_NEITHER, FILE_ANY_ACCESS)

EVT_WDF_WORKITEM DeviceEnablePDOWorker;
// STATUS_INVALID_PARAMETER when the child is already present.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    AddChild(WDFDEVICE Device, PWCHAR HardwareIds, size_t CchHardwareIds, ULONG SerialNo);
EVT_WDF_CHILD_LIST_CREATE_DEVICE FdoEvtDeviceListCreatePdo;
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    PdoCreateDynamic(WDFDEVICE Device, PWDFDEVICE_INIT DeviceInit, PWCHAR HardwareIds,
                     ULONG SerialNo);
EVT_WDF_IO_QUEUE_IO_DEVICE_CONTROL PdoIoQuDeviceControl;
