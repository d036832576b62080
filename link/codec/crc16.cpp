// CRC-16/XMODEM over frame bytes, sixteen bytes a step.
//
// The CRC is linear: over a block of k bytes, started from the CRC c, it is the XOR of what
// each byte contributes alone, with c folded into the first two bytes. Table j holds the CRC
// of a byte followed by j zero bytes, so a block costs one lookup a byte and no shifts, and
// the lookups of one block do not wait on each other. Table 0 is the polynomial's standard
// byte table.
#include "link/codec/hci.h"

namespace
{

constexpr ULONG crc16_slices = 16;

// 32-bit entries: each lookup is one XOR from memory.
struct crc16_tables {
    ULONG entry[crc16_slices][256];
};

constexpr crc16_tables make_crc16_tables()
{
    crc16_tables t = {};
    for (ULONG v = 0; v < 256; v++) {
        ULONG crc = v << 8;
        for (int bit = 0; bit < 8; bit++) {
            crc = (crc & 0x8000) != 0 ? (crc << 1) ^ 0x1021 : crc << 1;
        }
        t.entry[0][v] = crc & 0xFFFF;
    }
    // One zero byte more: the byte step applied to the previous table's CRC.
    for (ULONG j = 1; j < crc16_slices; j++) {
        for (ULONG v = 0; v < 256; v++) {
            ULONG prev = t.entry[j - 1][v];
            t.entry[j][v] = t.entry[0][prev >> 8] ^ ((prev << 8) & 0xFFFF);
        }
    }
    return t;
}

constexpr crc16_tables crc16 = make_crc16_tables();
static_assert(crc16.entry[0][1] == 0x1021 && crc16.entry[0][255] == 0x1EF0,
              "the standard table of polynomial 0x1021");
static_assert(crc16.entry[1][1] == 0x3331, "a byte followed by a zero byte");

// What bytes i .. k-1 of a k-byte block contribute.
template <ULONG k, ULONG i>
FORCEINLINE ULONG crc16_rest(const UCHAR* p)
{
    if constexpr (i == k) {
        return 0;
    } else {
        return crc16.entry[k - 1 - i][p[i]] ^ crc16_rest<k, i + 1>(p);
    }
}

// The CRC after a block of k bytes (2 or more), started from crc.
template <ULONG k>
FORCEINLINE ULONG crc16_block(ULONG crc, const UCHAR* p)
{
    return crc16.entry[k - 1][p[0] ^ (crc >> 8)] ^ crc16.entry[k - 2][p[1] ^ (crc & 0xFF)] ^
           crc16_rest<k, 2>(p);
}

} // namespace

// Byte j + 1 from the end of the bytes before the first full block.
#define CRC16_HEAD_BYTE(j)                                                                         \
    case (j) + 1:                                                                                  \
        crc ^= crc16.entry[j][p[-(j)-1]];                                                          \
        [[fallthrough]]

USHORT hci_crc16(const UCHAR* data, USHORT count)
{
    // The bytes that do not fill a block come first, as the end of a block whose start is
    // zero: zero bytes leave a CRC that starts at 0 unchanged.
    ULONG head = count % crc16_slices;
    const UCHAR* p = data + head;
    ULONG crc = 0;
    switch (head) {
        CRC16_HEAD_BYTE(14);
        CRC16_HEAD_BYTE(13);
        CRC16_HEAD_BYTE(12);
        CRC16_HEAD_BYTE(11);
        CRC16_HEAD_BYTE(10);
        CRC16_HEAD_BYTE(9);
        CRC16_HEAD_BYTE(8);
        CRC16_HEAD_BYTE(7);
        CRC16_HEAD_BYTE(6);
        CRC16_HEAD_BYTE(5);
        CRC16_HEAD_BYTE(4);
        CRC16_HEAD_BYTE(3);
        CRC16_HEAD_BYTE(2);
        CRC16_HEAD_BYTE(1);
        CRC16_HEAD_BYTE(0);
    default:
        break;
    }
    for (ULONG n = count - head; n != 0; n -= crc16_slices, p += crc16_slices) {
        crc = crc16_block<crc16_slices>(crc, p);
    }
    return (USHORT)crc;
}
