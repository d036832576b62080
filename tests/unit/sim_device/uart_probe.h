// The control codes of the UART probe driver, shared by the driver and its tests.
#pragma once

#include <initguid.h>
#include <ntddser.h>

// {6D1B3A52-7C0E-4E8B-9F2A-31C4D8E05B17}
DEFINE_GUID(GUID_DEVINTERFACE_UART_PROBE, 0x6d1b3a52, 0x7c0e, 0x4e8b, 0x9f, 0x2a, 0x31, 0xc4, 0xd8,
            0xe0, 0x5b, 0x17);

#define UPROBE_CODE(n) CTL_CODE(FILE_DEVICE_UNKNOWN, 0x900 + (n), METHOD_BUFFERED, FILE_ANY_ACCESS)
// Output: ULONG, the BaudRateIndex the driver found in its Parameters.
#define IOCTL_UPROBE_BAUD UPROBE_CODE(0)
// Input: UPROBE_READ. Output: UPROBE_RESULT, then the bytes read.
#define IOCTL_UPROBE_READ UPROBE_CODE(1)

// The probe sets these timeouts on the port, then reads.
typedef struct _UPROBE_READ {
    ULONG SendTimeoutMs;
    SERIAL_TIMEOUTS Timeouts;
} UPROBE_READ;

typedef struct _UPROBE_RESULT {
    NTSTATUS Status; // what the synchronous send returned
    ULONG Bytes;     // bytes it reported
} UPROBE_RESULT;
