// CRC-16/XMODEM over frame bytes, one table lookup per byte.
#include "link/codec/hci.h"

namespace
{

struct crc16_table {
    USHORT entry[256];
};

// Entry i is the CRC of the single byte i.
constexpr crc16_table make_crc16_table()
{
    crc16_table table = {};
    for (ULONG i = 0; i < 256; i++) {
        ULONG crc = i << 8;
        for (int bit = 0; bit < 8; bit++) {
            crc = (crc & 0x8000) != 0 ? (crc << 1) ^ 0x1021 : crc << 1;
        }
        table.entry[i] = (USHORT)crc;
    }
    return table;
}

constexpr crc16_table crc16 = make_crc16_table();
static_assert(crc16.entry[1] == 0x1021 && crc16.entry[255] == 0x1EF0,
              "the standard table of polynomial 0x1021");

} // namespace

USHORT hci_crc16(const UCHAR* data, USHORT count)
{
    USHORT crc = 0;
    for (USHORT i = 0; i < count; i++) {
        crc = (USHORT)(crc16.entry[(crc >> 8) ^ data[i]] ^ (crc << 8));
    }
    return crc;
}
