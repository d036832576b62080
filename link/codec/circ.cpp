// The carry-over area. One device is served, so one static area holds the start of the one
// frame that a read left incomplete.
#include "link/codec/circ.h"

static UCHAR hci_circ_area[HCI_CIRC_CAPACITY];

VOID init_hci_circ(hci_circ* circ)
{
    circ->circ_buf = hci_circ_area;
    circ->circ_count = 0;
    circ->circ_capacity = HCI_CIRC_CAPACITY;
}

BOOLEAN circ_append(hci_circ* circ, const UCHAR* data, ULONG count)
{
    if (circ->circ_buf == NULL || (ULONG)circ->circ_count + count > circ->circ_capacity) {
        return FALSE;
    }
    RtlCopyMemory(circ->circ_buf + circ->circ_count, data, count);
    circ->circ_count = (USHORT)(circ->circ_count + count);
    return TRUE;
}
