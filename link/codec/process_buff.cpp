// The scan of received bytes: every complete frame goes to parse_one_packet, the start of an
// incomplete one is kept in the carry-over buffer, and anything else is skipped.
#include "link/codec/circ.h"
#include "os/debug_log.h"

ULONG cnt_no_sync;
ULONG cnt_full;
ULONG cnt_short;
ULONG cnt_part;
ULONG cnt_large;
ULONG cnt_ipsid;
ULONG cnt_no_tail;

// Four bad frames of one kind since the last good one mean the stream is not worth scanning.
#define BAD_FRAME_LIMIT 3

static BOOLEAN too_many_bad_frames()
{
    return cnt_large > BAD_FRAME_LIMIT || cnt_ipsid > BAD_FRAME_LIMIT ||
           cnt_no_tail > BAD_FRAME_LIMIT;
}

static VOID clear_error_counters()
{
    cnt_no_sync = 0;
    cnt_short = 0;
    cnt_part = 0;
    cnt_large = 0;
    cnt_ipsid = 0;
    cnt_no_tail = 0;
}

LONG process_buff(const UCHAR* p, USHORT n, PVOID context, hci_circ* circ)
{
    while (n != 0) {
        if (too_many_bad_frames()) {
            reset_circ(circ);
            clear_error_counters();
            return -1;
        }

        USHORT total = 0;
        LONG status = check_pkt_status(p, n, &total);
        switch (status) {
        case PKT_NO_SYNC:
            cnt_no_sync++;
            do {
                p++;
                n--;
            } while (n != 0 && *p != HCI_SYNC);
            break;

        case PKT_FULL:
            clear_error_counters();
            cnt_full++;
            (VOID) parse_one_packet(p, total, context);
            p += total;
            n -= total;
            // Transmit buffers are padded with 0xFF up to a multiple of 8.
            while (n != 0 && *p == HCI_PAD) {
                p++;
                n--;
            }
            break;

        case PKT_SHORT:
        case PKT_PART:
            if (status == PKT_SHORT) {
                cnt_short++;
            } else {
                cnt_part++;
            }
            // The rest of the frame comes with the next read; bytes that do not fit are lost.
            (VOID) circ_append(circ, p, n);
            return 0;

        default:
            MvDbgPrint(DBG_ERROR, "%s", pkt_status_name(status));
            hci_hex_dump(p, n < HCI_HEX_DUMP_MAX ? n : HCI_HEX_DUMP_MAX);
            if (status == PKT_LARGE) {
                cnt_large++;
            } else if (status == PKT_IPSID) {
                cnt_ipsid++;
            } else {
                cnt_no_tail++;
            }
            p++;
            n--;
            break;
        }
    }
    return 0;
}
