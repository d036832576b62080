// GPS control inside the driver: bringing the chip up (the start-up sequence, cold and warm
// starts) and the receiver commands that turn one client intention into command packets.
// Every command goes through xfer_hci_pkt_core and waits for its acknowledgement unless
// said otherwise; all run at PASSIVE_LEVEL on the caller's thread and hold no lock of their
// own, so the read thread must be running to deliver the acknowledgements.
#pragma once

#include "control/control.h"
#include "driver/driver.h"
#include "link/device/command.h"

// NMEA output: pid 0xFF; sid 4 starts the sentences before sid 3 switches them on, sid 2
// switches them off.
#define GPS_SID_NMEA_OFF 2
#define GPS_SID_NMEA_ON 3
#define GPS_SID_NMEA_START 4

// Receiver starts (pid 0x20).
#define GPS_SID_WARM_START 2
#define GPS_SID_COLD_START 6
#define GPS_START_COLD 0
#define GPS_START_WARM 1

#define GPS_SID_OUTPUT_OPTION 5 // pid 0x22

// The geofence payloads the dispatcher builds from the client's records: the nine fields
// of GPS_GEOFENCE_RECORD in natural alignment, and the four bytes of a geofence command.
// Their alignment bytes are never set; the chip reads only the length it is given.
struct GEOFENCE_PAYLOAD {
    USHORT Field1;
    ULONG Field2;
    ULONG Field3;
    ULONG Field4;
    UCHAR Field5;
    ULONG Field6;
    ULONG Field7;
    ULONG Field8;
    ULONG Field9;
};
static_assert(sizeof(GEOFENCE_PAYLOAD) == 36, "the geofence payload is 36 bytes");
static_assert(FIELD_OFFSET(GEOFENCE_PAYLOAD, Field2) == 4, "second field at 4");
static_assert(FIELD_OFFSET(GEOFENCE_PAYLOAD, Field5) == 16, "fifth field at 16");
static_assert(FIELD_OFFSET(GEOFENCE_PAYLOAD, Field6) == 20, "sixth field at 20");

struct GEOFENCE_CMD_PAYLOAD {
    UCHAR Bytes[4];
};
static_assert(sizeof(GEOFENCE_CMD_PAYLOAD) == 4, "the geofence command payload is 4 bytes");

// Geofence results: 0, one of these, or GEOFENCE_GENERIC_ERROR.
#define GEOFENCE_TOO_MANY (-100)
#define GEOFENCE_ID_EXISTS (-101)
#define GEOFENCE_UNKNOWN_ID (-102)
#define GEOFENCE_INVALID_TRANSITION (-103)
#define GEOFENCE_GENERIC_ERROR (-149)

// The chip start-up, run after both threads are up and on every wake-up: NMEA off, one
// memory clear, the RF register, NMEA on; payload values little-endian from the first
// command. TRUE on success; a failed step ends it with DownloadFail_flag set, the steps
// before it left done.
_IRQL_requires_max_(PASSIVE_LEVEL) BOOLEAN H4DownloadPatchCode(FdoExtension* Context);

// GPS_START_COLD or GPS_START_WARM: 0 on success, else the command's failure; any other
// mode is -1 with nothing sent. A cold start is not awaited: it succeeds once written.
_IRQL_requires_max_(PASSIVE_LEVEL) LONG start_gps(FdoExtension* Context, ULONG mode);

// On: the start packet, then set_nmea_switch(1) if it was accepted. Off: set_nmea_switch(0).
// 0 or -1.
_IRQL_requires_max_(PASSIVE_LEVEL) LONG set_nmea_output(ULONG on, FdoExtension* Context);
_IRQL_requires_max_(PASSIVE_LEVEL) LONG set_nmea_switch(ULONG on, FdoExtension* Context);
// The receiver's one-byte option switch: 0 or -1.
_IRQL_requires_max_(PASSIVE_LEVEL) LONG set_output_option(FdoExtension* Context, UCHAR on);

// The assistance record's blocks, type 0 first and then each flagged slot's six blocks:
// 0, or -1 at the first block that fails (the ones before it stay sent). The caller
// guarantees that the record is whole.
_IRQL_requires_max_(PASSIVE_LEVEL) LONG
    hci_command_agps_tx(FdoExtension* Context, const GPS_AGPS_RECORD* record);

// One geofence command (pid 0x30, sid below 7) with length bytes of the payload record,
// answered by the chip with an identifier and a status: the status's result when the
// identifier is the expected one, else GEOFENCE_GENERIC_ERROR. A missing payload, a length
// beyond the record, or another pid or sid is refused with GEOFENCE_GENERIC_ERROR, unsent.
_IRQL_requires_max_(PASSIVE_LEVEL) LONG
    hci_command_geofence(FdoExtension* Context, USHORT expected_id, UCHAR pid, UCHAR sid,
                         const GEOFENCE_PAYLOAD* payload, USHORT length);
_IRQL_requires_max_(PASSIVE_LEVEL) LONG
    hci_command_geofence(FdoExtension* Context, USHORT expected_id, UCHAR pid, UCHAR sid,
                         const GEOFENCE_CMD_PAYLOAD* payload, USHORT length);

// One command that waits for its acknowledgement, as every receiver command is sent.
_IRQL_requires_max_(PASSIVE_LEVEL) FORCEINLINE LONG
    gps_send_acked(FdoExtension* Context, UCHAR pid, UCHAR sid, const UCHAR* payload, USHORT length)
{
    return xfer_hci_pkt_core(Context, 1, 1, pid, sid, payload, length, NULL, 1);
}

// The chip's status byte as a result, its text traced.
LONG geofence_status(UCHAR status);

#define GEOFENCE_STATUS_TEXT_SIZE 64
#define GEOFENCE_STATUS_TEXTS 7 // statuses 0 to 5, then one for any other
extern const CHAR geofence_status_text[GEOFENCE_STATUS_TEXTS][GEOFENCE_STATUS_TEXT_SIZE];
