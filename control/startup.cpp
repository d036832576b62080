// Bringing the receiver up: the start-up sequence the chip needs after power-up and after
// every wake-up, and the cold and warm starts a client asks for.
#include "control/gps.h"

// Cleared by the start-up sequence and after a cold start of an initialised device.
#define GPS_STARTUP_CLEAR_ADDRESS 0x8010A74Au
#define GPS_COLD_START_CLEAR_ADDRESS 0x8010A731u
// Traced before a cold start of a device that is not initialised yet.
#define GPS_COLD_START_TRACE_ADDRESS 0xB90023A4u
// The chip's control byte before its first cold start.
#define GPS_COLD_START_CTRL_BYTE 70
// RF register 0x31 (low byte) takes 0x2A856 (upper 24 bits).
#define GPS_RF_REGISTER_SETTING 0x02A85631u
// The cold start's argument travels in the host's own order.
#define GPS_COLD_START_ARGUMENT 1024
#define GPS_WARM_START_ARGUMENT 4

static LONG clear_chip_byte(FdoExtension* Context, ULONG address)
{
    const UCHAR zero = 0;
    return hci_write_mem_core(Context, address, &zero, 1, 1);
}

// The four steps; the first that fails ends the sequence with its message.
static BOOLEAN download_steps(FdoExtension* Context)
{
    if (gps_send_acked(Context, HCI_PID_NMEA, GPS_SID_NMEA_OFF, NULL, 0) != 0) {
        MvDbgPrintAs("H4DownloadPatchCode", DBG_ERROR, "Failed to disable NMEA");
        return FALSE;
    }
    LONG r = clear_chip_byte(Context, GPS_STARTUP_CLEAR_ADDRESS);
    if (r != 0) {
        MvDbgPrintAs("H4DownloadPatchCode", DBG_ERROR, "FAIL to hci_write_mem_status1: %d", r);
        return FALSE;
    }
    UCHAR rf[4];
    put_u32_ordered(GPS_RF_REGISTER_SETTING, rf);
    if (gps_send_acked(Context, HCI_PID_RF_REGISTER, 0, rf, sizeof(rf)) != 0) {
        MvDbgPrintAs("H4DownloadPatchCode", DBG_ERROR, "Failed to set RF register 0x31 as 0x2A856");
        return FALSE;
    }
    // Only the switch: after this sequence the chip's sentences need no start packet.
    if (gps_send_acked(Context, HCI_PID_NMEA, GPS_SID_NMEA_ON, NULL, 0) != 0) {
        MvDbgPrintAs("H4DownloadPatchCode", DBG_ERROR, "Failed to enable NMEA");
        return FALSE;
    }
    return TRUE;
}

_Use_decl_annotations_ BOOLEAN H4DownloadPatchCode(FdoExtension* Context)
{
    set_hci_endian_mode(HCI_LITTLE_ENDIAN);
    if (!download_steps(Context)) {
        Context->DownloadFail_flag = 1;
        return FALSE;
    }
    set_hci_endian_mode(HCI_LITTLE_ENDIAN);
    return TRUE;
}

static LONG warm_start(FdoExtension* Context)
{
    const UCHAR argument = GPS_WARM_START_ARGUMENT;
    LONG r = gps_send_acked(Context, HCI_PID_START, GPS_SID_WARM_START, &argument, 1);
    if (r != 0) {
        MvDbgPrintAs("start_gps", DBG_QUEUE, "%s: Failed to %s", "funcx", "GPS_WARM_START");
    }
    return r;
}

// Before the device is initialised the chip's control byte is set first; once it is, the
// start is followed by a memory clear instead. The start itself is not awaited.
static LONG cold_start(FdoExtension* Context)
{
    const BOOLEAN initialized = Context->Initialized_flag != 0;
    if (!initialized) {
        if (set_chip_ctrl_byte(Context, GPS_COLD_START_CTRL_BYTE) != 0) {
            return -1;
        }
        UCHAR value = 0;
        LONG r = hci_read_mem_core(Context, GPS_COLD_START_TRACE_ADDRESS, 1, &value, 1);
        MvDbgPrintAs("start_gps", DBG_COMPLETE, "chip 0x%08x: 0x%02x (read %d)",
                     GPS_COLD_START_TRACE_ADDRESS, value, r);
    }
    const USHORT argument = GPS_COLD_START_ARGUMENT;
    LONG r = xfer_hci_pkt_core(Context, 0, 1, HCI_PID_START, GPS_SID_COLD_START,
                               (const UCHAR*)&argument, sizeof(argument), NULL, 1);
    if (r != 0) {
        MvDbgPrintAs("start_gps", DBG_COMPLETE, "cold start not sent: %d", r);
    }
    if (initialized) {
        (VOID) clear_chip_byte(Context, GPS_COLD_START_CLEAR_ADDRESS);
    }
    return r;
}

_Use_decl_annotations_ LONG start_gps(FdoExtension* Context, ULONG mode)
{
    MvDbgPrint(DBG_COMPLETE, "Begin: start_gps!");
    switch (mode) {
    case GPS_START_COLD:
        return cold_start(Context);
    case GPS_START_WARM:
        return warm_start(Context);
    default:
        return -1;
    }
}
