/*
 * The driver's control interface as user-mode GPS software sees it: the device interface,
 * the fifteen buffered control codes and the records they carry. The driver and every
 * user-mode tool include this one header; it needs nothing but the C library, so it builds
 * as C or C++, with or without the WDK.
 *
 * Every code is buffered (METHOD_BUFFERED), any access, device type FILE_DEVICE_UNKNOWN;
 * function numbers run from 0xA13 with three gaps (0xA19, 0xA1B, 0xA1C) that the driver
 * answers as unsupported.
 */
#ifndef MVGPS_CONTROL_H
#define MVGPS_CONTROL_H

#include <stddef.h>
#include <stdint.h>

#ifndef __cplusplus
#include <assert.h> /* static_assert */
#endif

/* {A0874728-95AA-459A-9D17-D97E0AD026F4}, as an initializer for any GUID structure. */
#define MVGPS_DEVINTERFACE_GUID_INIT                                                               \
    {                                                                                              \
        0xA0874728, 0x95AA, 0x459A,                                                                \
        {                                                                                          \
            0x9D, 0x17, 0xD9, 0x7E, 0x0A, 0xD0, 0x26, 0xF4                                         \
        }                                                                                          \
    }
#define MVGPS_DEVINTERFACE_GUID_TEXT "{A0874728-95AA-459A-9D17-D97E0AD026F4}"

/* CTL_CODE(FILE_DEVICE_UNKNOWN, function, METHOD_BUFFERED, FILE_ANY_ACCESS), spelled out so
 * that the header needs no system header. */
#define MVGPS_CTL_CODE(function) ((uint32_t)((0x22u << 16) | ((uint32_t)(function) << 2)))
#define MVGPS_CTL_FUNCTION(code) (((uint32_t)(code) >> 2) & 0xFFFu)

#define IOCTL_VC_GPS_WAKEUP MVGPS_CTL_CODE(0xA13)            /* re-runs the chip start-up */
#define IOCTL_VC_GPS_START_READ MVGPS_CTL_CODE(0xA14)        /* out: header and one frame */
#define IOCTL_VC_GPS_SLEEP MVGPS_CTL_CODE(0xA15)             /* cancels one pending read */
#define IOCTL_VC_GPS_ENABLE_NMEA MVGPS_CTL_CODE(0xA16)       /* NMEA output on */
#define IOCTL_VC_GPS_DISABLE_NMEA MVGPS_CTL_CODE(0xA17)      /* NMEA output off */
#define IOCTL_VC_GPS_NMEA_OFF MVGPS_CTL_CODE(0xA18)          /* NMEA output off */
#define IOCTL_VC_GPS_STARTUP MVGPS_CTL_CODE(0xA1A)           /* cold start */
#define IOCTL_VC_GPS_AGPS_DATA MVGPS_CTL_CODE(0xA1D)         /* in: GPS_AGPS_RECORD */
#define IOCTL_VC_GPS_GET_DOWNLOAD_FLAG MVGPS_CTL_CODE(0xA1E) /* out: 1 byte */
#define IOCTL_VC_GPS_SENDCMD_ACK MVGPS_CTL_CODE(0xA1F)       /* in: GPS_COMMAND_RECORD */
#define IOCTL_VC_GPS_GEOFENCE_SET MVGPS_CTL_CODE(0xA20)      /* in: GPS_GEOFENCE_RECORD */
#define IOCTL_VC_SET_LOG_GPS_SENDCMD MVGPS_CTL_CODE(0xA21)   /* in: GPS_COMMAND_RECORD */
#define IOCTL_VC_GPS_FEATURE_OFF MVGPS_CTL_CODE(0xA22)       /* receiver option switch off */
#define IOCTL_VC_GPS_GEOFENCE_CMD MVGPS_CTL_CODE(0xA23)      /* in: GPS_GEOFENCE_CMD_RECORD */
#define IOCTL_VC_GPS_GET_SLEEP_STATUS MVGPS_CTL_CODE(0xA24)  /* out: 4 bytes */

static_assert(IOCTL_VC_GPS_WAKEUP == 0x0022284Cu, "the first code");
static_assert(IOCTL_VC_GPS_STARTUP == 0x00222868u, "the code after the first gap");
static_assert(IOCTL_VC_GPS_GET_SLEEP_STATUS == 0x00222890u, "the last code");

/* Each code with its name, in function order. */
struct gps_control_code {
    uint32_t code;
    const char* name;
};

#define MVGPS_CONTROL_CODE_COUNT 15

static const struct gps_control_code gps_control_codes[MVGPS_CONTROL_CODE_COUNT] = {
    {IOCTL_VC_GPS_WAKEUP, "IOCTL_VC_GPS_WAKEUP"},
    {IOCTL_VC_GPS_START_READ, "IOCTL_VC_GPS_START_READ"},
    {IOCTL_VC_GPS_SLEEP, "IOCTL_VC_GPS_SLEEP"},
    {IOCTL_VC_GPS_ENABLE_NMEA, "IOCTL_VC_GPS_ENABLE_NMEA"},
    {IOCTL_VC_GPS_DISABLE_NMEA, "IOCTL_VC_GPS_DISABLE_NMEA"},
    {IOCTL_VC_GPS_NMEA_OFF, "IOCTL_VC_GPS_NMEA_OFF"},
    {IOCTL_VC_GPS_STARTUP, "IOCTL_VC_GPS_STARTUP"},
    {IOCTL_VC_GPS_AGPS_DATA, "IOCTL_VC_GPS_AGPS_DATA"},
    {IOCTL_VC_GPS_GET_DOWNLOAD_FLAG, "IOCTL_VC_GPS_GET_DOWNLOAD_FLAG"},
    {IOCTL_VC_GPS_SENDCMD_ACK, "IOCTL_VC_GPS_SENDCMD_ACK"},
    {IOCTL_VC_GPS_GEOFENCE_SET, "IOCTL_VC_GPS_GEOFENCE_SET"},
    {IOCTL_VC_SET_LOG_GPS_SENDCMD, "IOCTL_VC_SET_LOG_GPS_SENDCMD"},
    {IOCTL_VC_GPS_FEATURE_OFF, "IOCTL_VC_GPS_FEATURE_OFF"},
    {IOCTL_VC_GPS_GEOFENCE_CMD, "IOCTL_VC_GPS_GEOFENCE_CMD"},
    {IOCTL_VC_GPS_GET_SLEEP_STATUS, "IOCTL_VC_GPS_GET_SLEEP_STATUS"},
};

/* The code's name, or NULL for a code that is not the driver's. */
static inline const char* gps_control_code_name(uint32_t code)
{
    for (size_t i = 0; i < MVGPS_CONTROL_CODE_COUNT; i++) {
        if (gps_control_codes[i].code == code) {
            return gps_control_codes[i].name;
        }
    }
    return NULL;
}

/* Input of the two raw-command codes: one chip packet as the client frames it. The driver
 * reads pid, sid, the payload length (high byte first) and that many payload bytes after the
 * header, and builds a fresh frame from them; head and total length are only logged. The
 * answer packet (the whole frame) is the output. */
typedef struct gps_command_record {
    uint8_t Head;
    uint8_t Reserved;
    uint8_t TotalLength; /* low 7 bits */
    uint8_t Pid;
    uint8_t Sid;
    uint8_t LengthHigh;
    uint8_t LengthLow;
    /* LengthHigh * 256 + LengthLow payload bytes follow */
} GPS_COMMAND_RECORD;
#define GPS_COMMAND_PAYLOAD_OFFSET 7
/* pid 0x16, sid 0: the payload's first four bytes are a little-endian rate in bits per
 * second, and the driver follows the chip to that rate after sending the command. */
#define GPS_COMMAND_PID_BAUD_RATE 0x16

static_assert(sizeof(GPS_COMMAND_RECORD) == GPS_COMMAND_PAYLOAD_OFFSET, "7-byte header");
static_assert(offsetof(GPS_COMMAND_RECORD, Pid) == 3, "pid at 3");
static_assert(offsetof(GPS_COMMAND_RECORD, LengthHigh) == 5, "length at 5");

/* Input of IOCTL_VC_GPS_GEOFENCE_SET. The chip answers with AnswerId and a status; Pid must
 * be 0x30 and Sid below 7. Length is the number of payload bytes sent, from the nine fields,
 * which the driver passes through in a record of its own. */
typedef struct gps_geofence_record {
    uint16_t AnswerId;
    uint8_t Pid;
    uint8_t Sid;
    uint16_t Length;
    uint16_t Field1;
    uint32_t Field2;
    uint32_t Field3;
    uint32_t Field4;
    uint8_t Field5;
    uint8_t Alignment[3];
    uint32_t Field6;
    uint32_t Field7;
    uint32_t Field8;
    uint32_t Field9;
} GPS_GEOFENCE_RECORD;
#define GPS_GEOFENCE_PID 0x30
#define GPS_GEOFENCE_SID_LIMIT 7

static_assert(sizeof(GPS_GEOFENCE_RECORD) == 40, "the geofence record is 40 bytes");
static_assert(offsetof(GPS_GEOFENCE_RECORD, Length) == 4, "length at 4");
static_assert(offsetof(GPS_GEOFENCE_RECORD, Field1) == 6, "fields from 6");
static_assert(offsetof(GPS_GEOFENCE_RECORD, Field2) == 8, "second field at 8");
static_assert(offsetof(GPS_GEOFENCE_RECORD, Field5) == 20, "fifth field at 20");
static_assert(offsetof(GPS_GEOFENCE_RECORD, Field6) == 24, "sixth field at 24");
static_assert(offsetof(GPS_GEOFENCE_RECORD, Field9) == 36, "ninth field at 36");

/* Input of IOCTL_VC_GPS_GEOFENCE_CMD: the same header and four payload bytes. */
typedef struct gps_geofence_cmd_record {
    uint16_t AnswerId;
    uint8_t Pid;
    uint8_t Sid;
    uint16_t Length;
    uint8_t Payload[4];
} GPS_GEOFENCE_CMD_RECORD;

static_assert(sizeof(GPS_GEOFENCE_CMD_RECORD) == 10, "the geofence command record is 10 bytes");
static_assert(offsetof(GPS_GEOFENCE_CMD_RECORD, Payload) == 6, "payload at 6");

/* Input of IOCTL_VC_GPS_AGPS_DATA. Nothing is sent when Valid is 0; otherwise the type 0
 * block, then for every slot whose flag is set its six blocks in the order of the fields.
 * The blocks are the chip's; the driver passes them through unread. */
#define GPS_AGPS_SLOTS 32

typedef struct gps_agps_record {
    uint8_t Reserved0[4];
    uint8_t Valid;
    uint8_t SlotFlags[GPS_AGPS_SLOTS];
    uint8_t Reserved1[3];
    uint8_t Type0[28];
    uint8_t Type1[GPS_AGPS_SLOTS][48];
    uint8_t Type2[GPS_AGPS_SLOTS][24];
    uint8_t Type31[GPS_AGPS_SLOTS][24];
    uint8_t Type32[GPS_AGPS_SLOTS][28];
    uint8_t Type33[GPS_AGPS_SLOTS][36];
    uint8_t Type4[GPS_AGPS_SLOTS][36];
} GPS_AGPS_RECORD;

static_assert(sizeof(GPS_AGPS_RECORD) == 6340, "the assistance record is 6340 bytes");
static_assert(offsetof(GPS_AGPS_RECORD, Valid) == 4, "valid flag at 4");
static_assert(offsetof(GPS_AGPS_RECORD, SlotFlags) == 5, "slot flags at 5");
static_assert(offsetof(GPS_AGPS_RECORD, Type0) == 40, "type 0 at 40");
static_assert(offsetof(GPS_AGPS_RECORD, Type1) == 68, "type 1 at 68");
static_assert(offsetof(GPS_AGPS_RECORD, Type2) == 1604, "type 2 at 1604");
static_assert(offsetof(GPS_AGPS_RECORD, Type31) == 2372, "type 31 at 2372");
static_assert(offsetof(GPS_AGPS_RECORD, Type32) == 3140, "type 32 at 3140");
static_assert(offsetof(GPS_AGPS_RECORD, Type33) == 4036, "type 33 at 4036");
static_assert(offsetof(GPS_AGPS_RECORD, Type4) == 5188, "type 4 at 5188");

/* Output of IOCTL_VC_GPS_START_READ: this header, then the frame. */
#define GPS_READ_HEADER_SIZE 16

#endif /* MVGPS_CONTROL_H */
