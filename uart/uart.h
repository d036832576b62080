// The UART transport: synchronous requests to the opened UART target.
//
// Fdo*:    one read, write or device control with a timeout, after the given request object
//          has been reused (the send itself lets the framework supply the request).
// Serial*: one-shot serial control calls with a private request and a 1 s timeout; TRUE
//          only for exactly STATUS_SUCCESS.
// Hal*:    the read thread's variants with a 50 ms send timeout; a cancelled read switches
//          reading off until ReadEnable_flag is set again.
#pragma once

#include <ntddk.h>
#include <wdf.h>
#include <ntddser.h>

#include "driver/driver.h"

#define UART_READ_TIMEOUT_SEC 1
#define UART_SERIAL_TIMEOUT_SEC 1
#define UART_HAL_TIMEOUT (-500000LL) // 50 ms in 100-ns units

_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    FdoReadFromDeviceSync(WDFIOTARGET IoTarget, WDFREQUEST Request, ULONG IoControlCode,
                          ULONG Length, PVOID Buffer, PULONG_PTR BytesRead);
// The byte count is stored only on success.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    FdoWriteToDeviceSyncWithTimeOut(WDFIOTARGET IoTarget, WDFREQUEST Request, ULONG IoControlCode,
                                    ULONG Length, PVOID Buffer, PULONG_PTR BytesWritten,
                                    ULONG TimeoutSeconds);
// "InvalidParam", "IoTimeout" or a single blank.
PCSTR IoStatusText(NTSTATUS Status);

_IRQL_requires_max_(PASSIVE_LEVEL) BOOLEAN
    SerialSendIoSync(WDFIOTARGET IoTarget, ULONG IoControlCode, ULONG Length, PVOID Buffer);
_IRQL_requires_max_(PASSIVE_LEVEL) BOOLEAN
    SerialReadFromSync(WDFIOTARGET IoTarget, ULONG IoControlCode, ULONG Length, PVOID Buffer);

_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    HalWriteToDeviceSync(WDFIOTARGET IoTarget, WDFREQUEST Request, ULONG IoControlCode, LONG Length,
                         PVOID Buffer, PULONG_PTR BytesWritten);
// With ReadEnable_flag 0 nothing is sent: the result is success and 0 bytes.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    HalReadFromDeviceSync(WDFIOTARGET IoTarget, WDFREQUEST Request, ULONG IoControlCode,
                          ULONG Length, PVOID Buffer, PULONG_PTR BytesRead, FdoExtension* Context);

// Creates the UART target and opens it: by the Resource Hub id in UartConnectionId, or the
// first serial-port interface when there is none. *IoTarget is written only on success; a
// failed open leaves no target behind.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS FdoOpenDevice(WDFDEVICE Device, WDFIOTARGET* IoTarget);
