// The device's life as the framework drives it: driver entry and device add, hardware
// preparation and release, power transitions, and the two worker threads that run from
// device initialisation (or a return to D0) to the next stop.
//
// Every stop (D0 exit, release hardware, a failed initialisation) runs the same order: the
// UART target stops with its sent I/O cancelled, so the read thread's read ends; the read
// thread leaves; only then is the processing thread told to leave, so that no frame is
// queued after its consumer has gone. Both threads' objects are kept and waited for, so no
// code of the driver can be unloaded while a thread is still on its way out of it.
#pragma once

#include "driver/driver.h"

extern "C" DRIVER_INITIALIZE DriverEntry;
EVT_WDF_OBJECT_CONTEXT_CLEANUP DriverCleanup;
EVT_WDF_DRIVER_DEVICE_ADD DriverDeviceAdd;
_IRQL_requires_max_(PASSIVE_LEVEL) VOID DriverSetDeviceCallbackEvents(PWDFDEVICE_INIT DeviceInit);
// BaudRate from the "BaudRateIndex" parameter, 9600 when it cannot be read.
_IRQL_requires_max_(PASSIVE_LEVEL) VOID ReadBaudRate(WDFDRIVER Driver, WDFDEVICE Device);
// *Value is 0 on any failure; the status is the query's.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    ReadParameterULong(WDFDRIVER Driver, PCWSTR ValueName, PULONG Value);

_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS HlpInitializeFdoExtension(WDFDEVICE Device);
// First line setup, the read queue, the signals, AckBuffer, both threads and the chip's
// start-up. TRUE when all of it stands; FALSE with everything it made released again.
_IRQL_requires_max_(PASSIVE_LEVEL) BOOLEAN
    DeviceInitialize(WDFDEVICE Device, FdoExtension* Extension, WDFIOTARGET IoTarget,
                     WDFREQUEST Request, ULONG Mode);

_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    FdoFindConnectResources(WDFDEVICE Device, WDFCMRESLIST ResourcesRaw,
                            WDFCMRESLIST ResourcesTranslated);
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS FdoSetIdleSettings(WDFDEVICE Device, BOOLEAN Supported);
EVT_WDF_DEVICE_PREPARE_HARDWARE FdoDevPrepareHardware;
EVT_WDF_DEVICE_RELEASE_HARDWARE FdoDevReleaseHardware;

EVT_WDF_DEVICE_D0_ENTRY FdoDevD0Entry;
EVT_WDF_DEVICE_D0_EXIT FdoDevD0Exit;
EVT_WDF_DEVICE_SELF_MANAGED_IO_INIT FdoDevSelfManagedIoInit;
EVT_WDF_DEVICE_SELF_MANAGED_IO_CLEANUP FdoDevSelfManagedIoCleanup;
EVT_WDF_DEVICE_ARM_WAKE_FROM_S0 FdoEvtDeviceArmWake;
EVT_WDF_DEVICE_DISARM_WAKE_FROM_S0 FdoEvtDeviceDisarmWake;

// Sets the three run flags and starts the read thread, then the processing thread, keeping
// their objects. On failure no thread of this start runs and the flags are 0 again.
// Function names the caller in the log.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS FdoStartThreads(FdoExtension* Context, PCSTR Function);
// The thread-stop sequence, when Threadread_flag is 1; ClearSignals clears each finish signal
// after its wait. The caller has stopped the UART target first.
_IRQL_requires_max_(PASSIVE_LEVEL) VOID
    FdoStopThreads(FdoExtension* Context, BOOLEAN ClearSignals, PCSTR Function);

// The line's settings in their order: the rate, 8N1, no flow control. Each result is logged
// under Function with Class; FALSE at the first that the UART refuses.
_IRQL_requires_max_(PASSIVE_LEVEL) BOOLEAN
    FdoSetupLine(WDFIOTARGET IoTarget, ULONG BaudRate, PCSTR Function, ULONG Class);
