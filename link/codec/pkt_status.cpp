// Classification of the bytes at the start of a received buffer.
#include "link/codec/hci.h"

LONG check_pkt_status(const UCHAR* b, USHORT n, USHORT* total)
{
    // An empty buffer has no first byte to look at.
    if (n == 0) {
        return PKT_SHORT;
    }
    if (b[0] != HCI_SYNC) {
        return PKT_NO_SYNC;
    }
    if (n < HCI_FRAME_MIN) {
        return PKT_SHORT;
    }
    if (!hci_ids_valid(b[3], b[4])) {
        return PKT_IPSID;
    }
    if ((b[1] & HCI_LEN_RESERVED) != 0) {
        return PKT_LARGE;
    }
    USHORT t = (USHORT)((b[1] < HCI_CRC_PRESENT ? 4 : 6) + make_u16_be(b[1] & HCI_LEN_HIGH, b[2]));
    if (t > n) {
        return t < 4107 ? PKT_PART : PKT_LARGE;
    }
    if (b[t - 1] != HCI_TAIL) {
        return PKT_NO_TAIL;
    }
    *total = t;
    return PKT_FULL;
}

PCSTR pkt_status_name(LONG status)
{
    switch (status) {
    case PKT_NO_SYNC:
        return "PKT_NO_SYNC";
    case PKT_NO_TAIL:
        return "PKT_NO_TAIL";
    case PKT_SHORT:
        return "PKT_SHORT";
    case PKT_LARGE:
        return "PKT_LARGE";
    case PKT_IPSID:
        return "PKT_IPSID";
    case PKT_PART:
        return "PKT_PART";
    case PKT_FULL:
        return "PKT_FULL";
    default:
        return "unknown pkt st";
    }
}
