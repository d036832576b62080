// The data-path test driver: the driver's real os, link, uart and read code in an image of
// its own, with just enough device set-up around it to run the read and processing threads
// over the UART the test binds at DATA_PATH_UART_NAME. Shared by the driver and its tests.
//
// Control codes (buffered):
//   IOCTL_DATA_PATH_READ      left pending on the read queue; completed with a received frame
//   IOCTL_DATA_PATH_SEND_CMD  input: pid, sid, payload; written without waiting, completed
//                             by the chip's answer with the same pid and sid
//
// Everything else a test does, it does on its own thread through the operations table that
// the image exports as DataPathOps.
#pragma once

#include "control/gps.h"

#define DATA_PATH_UART_NAME L"\\Device\\DataPathUart"
#define DATA_PATH_DEFAULT_RATE 921600u

#define DATA_PATH_CODE(n)                                                                          \
    CTL_CODE(FILE_DEVICE_UNKNOWN, 0xA00 + (n), METHOD_BUFFERED, FILE_ANY_ACCESS)
#define IOCTL_DATA_PATH_READ DATA_PATH_CODE(0)
#define IOCTL_DATA_PATH_SEND_CMD DATA_PATH_CODE(1)

// {7E1B64C2-3A5D-4F08-9B27-C1D4E8F50A36}
DEFINE_GUID(GUID_DEVINTERFACE_DATA_PATH, 0x7E1B64C2L, 0x3A5D, 0x4F08, 0x9B, 0x27, 0xC1, 0xD4, 0xE8,
            0xF5, 0x0A, 0x36);

struct DATA_PATH_OPS {
    // The one device's context (NULL before it is added).
    FdoExtension* (*Extension)();
    LONG(*Xfer)
    (FdoExtension* Context, ULONG wait_ack, UCHAR crc_flag, UCHAR pid, UCHAR sid,
     const UCHAR* payload, USHORT payload_len, PUCHAR answer, UCHAR last);
    LONG(*WriteMem)
    (FdoExtension* Context, ULONG address, const UCHAR* data, USHORT len, UCHAR last);
    LONG (*ReadMem)(FdoExtension* Context, ULONG address, USHORT len, PUCHAR out, UCHAR last);
    UCHAR (*ReadCtrlByte)(FdoExtension* Context);
    LONG (*SetCtrlByte)(FdoExtension* Context, UCHAR value);
    LONG (*SetEndianMode)(ULONG mode);
    BOOLEAN (*SerialSend)(WDFIOTARGET IoTarget, ULONG IoControlCode, ULONG Length, PVOID Buffer);
    BOOLEAN (*SerialRead)(WDFIOTARGET IoTarget, ULONG IoControlCode, ULONG Length, PVOID Buffer);
    NTSTATUS(*HalRead)
    (WDFIOTARGET IoTarget, WDFREQUEST Request, ULONG IoControlCode, ULONG Length, PVOID Buffer,
     PULONG_PTR BytesRead, FdoExtension* Context);
    // GPS control and the rate switch.
    BOOLEAN (*DownloadPatchCode)(FdoExtension* Context);
    LONG (*StartGps)(FdoExtension* Context, ULONG mode);
    LONG (*SetNmeaOutput)(ULONG on, FdoExtension* Context);
    LONG (*SetOutputOption)(FdoExtension* Context, UCHAR on);
    LONG (*AgpsTx)(FdoExtension* Context, const GPS_AGPS_RECORD* record);
    LONG(*Geofence)
    (FdoExtension* Context, USHORT expected_id, UCHAR pid, UCHAR sid,
     const GEOFENCE_PAYLOAD* payload, USHORT length);
    LONG(*GeofenceCmd)
    (FdoExtension* Context, USHORT expected_id, UCHAR pid, UCHAR sid,
     const GEOFENCE_CMD_PAYLOAD* payload, USHORT length);
    LONG (*ChangeBaudrate)(FdoExtension* Context, ULONG BaudRate, ULONG Unused);
};

typedef const DATA_PATH_OPS* DATA_PATH_OPS_FN();
EXTERN_C DATA_PATH_OPS_FN DataPathOps;
