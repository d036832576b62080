// Payload values in the byte order the chip was started with.
#include "link/codec/hci.h"

ULONG hci_endian_mode;

// The mode is written by the start-up thread and read by senders on other threads.
static BOOLEAN little_endian()
{
    return ReadULongAcquire(&hci_endian_mode) == HCI_LITTLE_ENDIAN;
}

LONG set_hci_endian_mode(ULONG mode)
{
    WriteULongRelease(&hci_endian_mode, mode);
    return 0;
}

VOID put_u16_ordered(USHORT value, PUCHAR dest)
{
    if (little_endian()) {
        dest[0] = (UCHAR)value;
        dest[1] = (UCHAR)(value >> 8);
    } else {
        dest[0] = (UCHAR)(value >> 8);
        dest[1] = (UCHAR)value;
    }
}

VOID put_u32_ordered(ULONG value, PUCHAR dest)
{
    BOOLEAN little = little_endian();
    for (int i = 0; i < 4; i++) {
        int shift = little ? 8 * i : 8 * (3 - i);
        dest[i] = (UCHAR)(value >> shift);
    }
}

ULONG get_u32_ordered(UCHAR b0, UCHAR b1, UCHAR b2, UCHAR b3)
{
    if (little_endian()) {
        return make_u32_le(b0, b1, b2, b3);
    }
    return make_u32_le(b3, b2, b1, b0);
}
