// Final checks of one complete frame and its hand-over to the registered handler.
#include "link/codec/hci.h"
#include "os/debug_log.h"

pkt_parse_callback_fn pkt_parse_callback;

VOID set_pkt_parse_callback(pkt_parse_callback_fn callback)
{
    pkt_parse_callback = callback;
}

LONG parse_one_packet(const UCHAR* f, USHORT n, PVOID context)
{
    // Without its length bytes a frame is shorter than any frame can be.
    if (n < 3) {
        MvDbgPrint(DBG_ERROR, "length: %u, pkt_len: %u", n, HCI_FRAME_MIN);
        return -1;
    }
    UCHAR crc_flag = (f[1] & HCI_CRC_PRESENT) != 0 ? 1 : 0;
    USHORT length = make_u16_be(f[1] & 0x7F, f[2]);
    ULONG total = length + (crc_flag != 0 ? 6u : 4u);
    if (n < total) {
        MvDbgPrint(DBG_ERROR, "length: %u, pkt_len: %u", n, total);
        return -1;
    }
    // Only a frame with both marks wrong is refused here; the receive scan has already
    // required the sync byte and the tail of every frame it hands over.
    if (f[0] != HCI_SYNC && f[total - 1] != HCI_TAIL) {
        MvDbgPrint(DBG_ERROR, "packet feature code error!");
        return -1;
    }
    if (crc_flag != 0) {
        USHORT stored = make_u16_be(f[length + 3], f[length + 4]);
        if (stored != hci_crc16(f + 1, (USHORT)(length + 2))) {
            // Dropped without a word to the chip.
            MvDbgPrint(DBG_ERROR, "pid %02x, sid %02x, CRC error", f[3], f[4]);
            return -1;
        }
    }
    if (pkt_parse_callback == NULL) {
        return 0;
    }
    return pkt_parse_callback(f, (USHORT)total, crc_flag, context);
}
