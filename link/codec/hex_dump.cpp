// The shared diagnostic dump line.
#include "link/codec/hci.h"

CHAR hci_hex_dump_line[HCI_HEX_DUMP_LINE_SIZE];

VOID hci_hex_dump(const UCHAR* data, ULONG count)
{
    static const char digits[] = "0123456789abcdef";

    if (data == NULL || count == 0) {
        return;
    }
    // Each dump writes from the start of the line and starts it again after every 16th
    // byte, so the line never holds more than 16 entries. Threads share it without a lock:
    // their entries may mix, so each character is stored on its own. Only the last 16 bytes
    // leave entries that no later byte overwrites, so only they are written: a dump of a
    // kilobyte of garbage after every rejected byte was most of the receive path's time.
    const ULONG first = count > HCI_HEX_DUMP_ENTRIES ? count - HCI_HEX_DUMP_ENTRIES : 0;
    for (ULONG i = first; i < count; i++) {
        PUCHAR entry = (PUCHAR)hci_hex_dump_line + (i % HCI_HEX_DUMP_ENTRIES) * 3;
        WriteUCharRelease(&entry[0], digits[data[i] >> 4]);
        WriteUCharRelease(&entry[1], digits[data[i] & 0xF]);
        WriteUCharRelease(&entry[2], ' ');
        WriteUCharRelease(&entry[3], '\0');
    }
}
