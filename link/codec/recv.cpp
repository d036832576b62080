// Reassembly of a frame that a read left incomplete: the carry-over buffer takes what the
// next reads bring until the frame is whole, then the rest of the read is scanned as usual.
#include "link/codec/circ.h"
#include "os/debug_log.h"

// Longest frame total a sane header can give, with room to spare.
#define CIRC_FRAME_LIMIT 4110

// A header that cannot start a frame: padding after the sync byte, or identifiers no frame
// carries.
static BOOLEAN bogus_header(const UCHAR* b)
{
    return b[1] == HCI_PAD || !hci_ids_valid(b[3], b[4]);
}

// Drops the leading sync byte and the padding after it, keeping whatever follows.
static VOID drop_bogus_start(hci_circ* circ)
{
    ULONG skip = 1;
    while (skip < circ->circ_count && circ->circ_buf[skip] == HCI_PAD) {
        skip++;
    }
    ULONG left = circ->circ_count - skip;
    if (left != 0) {
        RtlMoveMemory(circ->circ_buf, circ->circ_buf + skip, left);
    }
    circ->circ_count = (USHORT)left;
}

VOID recv_hci_buffer(const UCHAR* d, USHORT n, PVOID context, hci_circ* circ)
{
    if (circ->circ_count == 0) {
        (VOID) process_buff(d, n, context, circ);
        return;
    }

    USHORT orig_len = n;
    PUCHAR held = circ->circ_buf;
    MvDbgPrint(DBG_ERROR, "-e, part of previous hci pkt, l %u, len %u", circ->circ_count, n);

    // What is held cannot be the start of a frame; the new bytes go with it.
    if (held[0] != HCI_SYNC) {
        MvDbgPrint(DBG_ERROR, "no hci preamble code in circ");
        hci_hex_dump(held,
                     circ->circ_count < HCI_HEX_DUMP_MAX ? circ->circ_count : HCI_HEX_DUMP_MAX);
        reset_circ(circ);
        return;
    }

    ULONG l = circ->circ_count;
    if (l < HCI_HEADER_SIZE) {
        if (l + n < HCI_HEADER_SIZE) {
            (VOID) circ_append(circ, d, n);
            return;
        }
        ULONG k = HCI_HEADER_SIZE - l;
        (VOID) circ_append(circ, d, k);
        d += k;
        n = (USHORT)(n - k);
        if (bogus_header(held)) {
            drop_bogus_start(circ);
        }
        l = circ->circ_count;
    }

    // The header may be partly stale after a bogus start was dropped; it is used as it stands.
    UCHAR pid = held[3];
    UCHAR sid = held[4];
    ULONG total =
        (held[1] < HCI_CRC_PRESENT ? 4 : 6) + make_u16_be(held[1] & HCI_LEN_HIGH, held[2]);
    if (total > CIRC_FRAME_LIMIT) {
        MvDbgPrint(DBG_ERROR, "pkt is too large, circ_pn %u, pid %02x, sid %02x, bogus", total, pid,
                   sid);
        reset_circ(circ);
        (VOID) process_buff(d, n, context, circ);
        return;
    }

    // A held start as long as the frame it announces has nothing more to take.
    ULONG k = n;
    if (l >= total) {
        k = 0;
    } else if (l + n >= total) {
        k = total - l;
    }
    MvDbgPrint(DBG_ERROR, "move %u bytes to circ, pid %02x, sid %02x, circ_pn %u", k, pid, sid,
               total);
    (VOID) circ_append(circ, d, k);
    l += k;
    d += k;
    n = (USHORT)(n - k);
    if (l < total) {
        MvDbgPrint(DBG_ERROR, "Partial pkt in circ after copying, l %u, circ_pn %u", l, total);
        return;
    }

    // Only bytes that fitted are examined: a frame longer than the area is never whole.
    USHORT full = 0;
    LONG status = check_pkt_status(held, circ->circ_count, &full);
    if (status == PKT_FULL) {
        MvDbgPrint(DBG_ERROR, "Found full packet in circ");
        (VOID) parse_one_packet(held, full, context);
    } else {
        MvDbgPrint(DBG_ERROR,
                   "[%s] in circ, discard it, l %u, circ_pn %u, len %u, orig_len %u, pid %02x, "
                   "sid %02x",
                   pkt_status_name(status), l, total, n, orig_len, pid, sid);
        hci_hex_dump(held,
                     circ->circ_count < HCI_HEX_DUMP_MAX ? circ->circ_count : HCI_HEX_DUMP_MAX);
    }
    reset_circ(circ);
    (VOID) process_buff(d, n, context, circ);
    MvDbgPrint(DBG_ERROR, "-x, part");
}
