// Receiver commands: NMEA output, the option switch and the assistance data, each sent as
// acknowledged command packets.
#include "control/gps.h"

_Use_decl_annotations_ LONG set_nmea_switch(ULONG on, FdoExtension* Context)
{
    UCHAR sid = on ? GPS_SID_NMEA_ON : GPS_SID_NMEA_OFF;
    if (gps_send_acked(Context, HCI_PID_NMEA, sid, NULL, 0) != 0) {
        MvDbgPrint(DBG_ERROR, "%s", on ? "enable" : "disable");
        return -1;
    }
    return 0;
}

_Use_decl_annotations_ LONG set_nmea_output(ULONG on, FdoExtension* Context)
{
    if (on) {
        // The switch alone does not restart sentences the chip has stopped.
        if (gps_send_acked(Context, HCI_PID_NMEA, GPS_SID_NMEA_START, NULL, 0) != 0) {
            return -1;
        }
        return set_nmea_switch(1, Context);
    }
    return set_nmea_switch(0, Context);
}

_Use_decl_annotations_ LONG set_output_option(FdoExtension* Context, UCHAR on)
{
    const UCHAR value = on ? 1 : 0;
    if (gps_send_acked(Context, HCI_PID_OUTPUT_OPTION, GPS_SID_OUTPUT_OPTION, &value, 1) != 0) {
        MvDbgPrint(DBG_ERROR, "%s", on ? "enable" : "disable");
        return -1;
    }
    return 0;
}

static LONG send_agps_block(FdoExtension* Context, UCHAR sid, const UCHAR* block, USHORT size,
                            PCSTR failure)
{
    if (gps_send_acked(Context, HCI_PID_AGPS, sid, block, size) != 0) {
        MvDbgPrintAs("hci_command_agps_tx", DBG_ERROR, "%s", failure);
        return -1;
    }
    return 0;
}

// One slot's six blocks in the chip's order. The names the log gives the types 31 to 33
// are not their sids.
static LONG send_agps_slot(FdoExtension* Context, const GPS_AGPS_RECORD* record, ULONG i)
{
    const struct {
        UCHAR sid;
        const UCHAR* block;
        USHORT size;
        PCSTR failure;
    } blocks[] = {
        {1, record->Type1[i], sizeof(record->Type1[i]), "Failed to xfer type1"},
        {2, record->Type2[i], sizeof(record->Type2[i]), "Failed to xfer type2"},
        {3, record->Type31[i], sizeof(record->Type31[i]), "Failed to xfer type31"},
        {4, record->Type32[i], sizeof(record->Type32[i]), "Failed to xfer type32"},
        {5, record->Type33[i], sizeof(record->Type33[i]), "Failed to xfer type33"},
        {6, record->Type4[i], sizeof(record->Type4[i]), "Failed to xfer type4"},
    };
    for (const auto& b : blocks) {
        if (send_agps_block(Context, b.sid, b.block, b.size, b.failure) != 0) {
            return -1;
        }
    }
    return 0;
}

_Use_decl_annotations_ LONG hci_command_agps_tx(FdoExtension* Context,
                                                const GPS_AGPS_RECORD* record)
{
    if (record->Valid == 0) {
        return 0;
    }
    if (send_agps_block(Context, 0, record->Type0, sizeof(record->Type0), "Failed to xfer type0") !=
        0) {
        return -1;
    }
    for (ULONG i = 0; i < GPS_AGPS_SLOTS; i++) {
        if (record->SlotFlags[i] != 0 && send_agps_slot(Context, record, i) != 0) {
            return -1;
        }
    }
    return 0;
}
