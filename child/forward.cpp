// The child's requests: the codes it accepts go to the parent's default queue, where the
// parent's dispatcher handles them; everything else is refused at once.
#include "child/child.h"
#include "control/control.h"

// The sleep-status query (IOCTL_VC_GPS_GET_SLEEP_STATUS) is offered on the parent only.
static const ULONG PdoForwardedCodes[] = {
    IOCTL_VC_GPS_WAKEUP,      IOCTL_VC_GPS_START_READ,   IOCTL_VC_GPS_SLEEP,
    IOCTL_VC_GPS_ENABLE_NMEA, IOCTL_VC_GPS_DISABLE_NMEA, IOCTL_VC_GPS_NMEA_OFF,
    IOCTL_VC_GPS_STARTUP,     IOCTL_VC_GPS_AGPS_DATA,    IOCTL_VC_GPS_GET_DOWNLOAD_FLAG,
    IOCTL_VC_GPS_SENDCMD_ACK, IOCTL_VC_GPS_GEOFENCE_SET, IOCTL_VC_SET_LOG_GPS_SENDCMD,
    IOCTL_VC_GPS_FEATURE_OFF, IOCTL_VC_GPS_GEOFENCE_CMD, PDO_NEITHER_CODE(0),
    PDO_NEITHER_CODE(1),      PDO_NEITHER_CODE(2),       PDO_NEITHER_CODE(3),
    PDO_NEITHER_CODE(4),
};
static_assert(sizeof(PdoForwardedCodes) / sizeof(PdoForwardedCodes[0]) == 19,
              "the child forwards nineteen codes");

static BOOLEAN forwarded(ULONG code)
{
    for (ULONG accepted : PdoForwardedCodes) {
        if (accepted == code) {
            return TRUE;
        }
    }
    return FALSE;
}

_Use_decl_annotations_ VOID PdoIoQuDeviceControl(WDFQUEUE Queue, WDFREQUEST Request,
                                                 size_t OutputBufferLength,
                                                 size_t InputBufferLength, ULONG IoControlCode)
{
    MvDbgPrint(DBG_ERROR, "+IoDeviceControl - InBufLen:%d, OutBufLen:%d", (int)InputBufferLength,
               (int)OutputBufferLength);
    if (!forwarded(IoControlCode)) {
        MvDbgPrint(DBG_CHILD, "Unexpected IOCTL_(0x%x, Func %d)", IoControlCode,
                   (int)MVGPS_CTL_FUNCTION(IoControlCode));
        WdfRequestComplete(Request, STATUS_INVALID_PARAMETER);
        return;
    }
    WDFDEVICE parent = WdfPdoGetParent(WdfIoQueueGetDevice(Queue));
    WDF_REQUEST_FORWARD_OPTIONS options;
    WDF_REQUEST_FORWARD_OPTIONS_INIT(&options);
    options.Flags = WDF_REQUEST_FORWARD_OPTION_SEND_AND_FORGET;
    NTSTATUS status =
        WdfRequestForwardToParentDeviceIoQueue(Request, WdfDeviceGetDefaultQueue(parent), &options);
    if (!NT_SUCCESS(status)) {
        WdfRequestComplete(Request, status);
        return;
    }
    MvDbgPrint(DBG_ERROR, "-IoDeviceControl");
}
