// Geofence commands: one command packet, whose acknowledgement carries the identifier of the
// geofence it concerns and the chip's status for it.
#include "control/gps.h"

// The acknowledgement: err_status at 7, then the identifier (little-endian) and the status.
#define GEOFENCE_ANSWER_ID_OFFSET 11
#define GEOFENCE_ANSWER_STATUS_OFFSET 13
// The length field of an answer that reaches the status byte: pid, sid, the payload length
// and the payload up to the status.
#define GEOFENCE_ANSWER_MIN_LENGTH (GEOFENCE_ANSWER_STATUS_OFFSET + 1 - HCI_PAYLOAD_OFFSET + 4)

// Indexed by the chip's status; any status above 5 takes the last entry.
const CHAR geofence_status_text[GEOFENCE_STATUS_TEXTS][GEOFENCE_STATUS_TEXT_SIZE] = {
    "operation success",  "too many geofences",  "geofence id already exists",
    "invalid transition", "unknown geofence id", "generic errors",
    "unknown status",
};

// Statuses 3 and 4 give their results crossed over, as clients have always seen them.
static const LONG geofence_result[GEOFENCE_STATUS_TEXTS] = {
    0,
    GEOFENCE_TOO_MANY,
    GEOFENCE_ID_EXISTS,
    GEOFENCE_INVALID_TRANSITION,
    GEOFENCE_UNKNOWN_ID,
    GEOFENCE_GENERIC_ERROR,
    GEOFENCE_GENERIC_ERROR,
};

LONG geofence_status(UCHAR status)
{
    ULONG i = status < GEOFENCE_STATUS_TEXTS - 1 ? status : GEOFENCE_STATUS_TEXTS - 1;
    MvDbgPrint(DBG_ERROR, "%s", geofence_status_text[i]);
    return geofence_result[i];
}

// The answer is read only within the frame the chip sent: its length field, bounded by the
// buffer the frame was copied into (zeroed beforehand, so a short copy reads as zeros).
static LONG read_geofence_answer(const UCHAR* answer, USHORT expected_id)
{
    ULONG length = ((ULONG)(answer[1] & HCI_LEN_HIGH) << 8) | answer[2];
    ULONG sent = length + ((answer[1] & HCI_CRC_PRESENT) ? 6 : 4);
    ULONG dump = length + 6 < sent ? length + 6 : sent;
    if (dump > FDO_ACK_BUFFER_SIZE) {
        dump = FDO_ACK_BUFFER_SIZE;
    }
    for (ULONG i = 0; i < dump; i++) {
        MvDbgPrintAs("hci_command_geofence", DBG_ERROR, "%02x ", answer[i]);
    }
    if (length < GEOFENCE_ANSWER_MIN_LENGTH) {
        return GEOFENCE_GENERIC_ERROR;
    }
    USHORT id =
        make_u16_le(answer[GEOFENCE_ANSWER_ID_OFFSET], answer[GEOFENCE_ANSWER_ID_OFFSET + 1]);
    if (id != expected_id) {
        return GEOFENCE_GENERIC_ERROR;
    }
    return geofence_status(answer[GEOFENCE_ANSWER_STATUS_OFFSET]);
}

static LONG geofence_command(FdoExtension* Context, USHORT expected_id, UCHAR pid, UCHAR sid,
                             const VOID* payload, USHORT length, ULONG payload_size)
{
    if (payload == NULL || pid != GPS_GEOFENCE_PID || sid >= GPS_GEOFENCE_SID_LIMIT ||
        length > payload_size) {
        return GEOFENCE_GENERIC_ERROR;
    }
    // Too large for the stack: the answer may be as long as any acknowledgement.
    PUCHAR answer =
        (PUCHAR)ExAllocatePoolWithTag(NonPagedPoolNx, FDO_ACK_BUFFER_SIZE, DRIVER_POOL_TAG);
    if (answer == NULL) {
        return GEOFENCE_GENERIC_ERROR;
    }
    RtlZeroMemory(answer, FDO_ACK_BUFFER_SIZE);
    LONG result = GEOFENCE_GENERIC_ERROR;
    if (xfer_hci_pkt_core(Context, 1, 1, pid, sid, (const UCHAR*)payload, length, answer, 0) == 0) {
        result = read_geofence_answer(answer, expected_id);
    }
    ExFreePoolWithTag(answer, ANY_POOL_TAG);
    return result;
}

_Use_decl_annotations_ LONG hci_command_geofence(FdoExtension* Context, USHORT expected_id,
                                                 UCHAR pid, UCHAR sid,
                                                 const GEOFENCE_PAYLOAD* payload, USHORT length)
{
    return geofence_command(Context, expected_id, pid, sid, payload, length, sizeof(*payload));
}

_Use_decl_annotations_ LONG hci_command_geofence(FdoExtension* Context, USHORT expected_id,
                                                 UCHAR pid, UCHAR sid,
                                                 const GEOFENCE_CMD_PAYLOAD* payload, USHORT length)
{
    return geofence_command(Context, expected_id, pid, sid, payload, length, sizeof(*payload));
}
