// The chip packet link: the hci frame exchanged with the chip in both directions, its CRC,
// transmit packets, byte-order helpers, and reassembly of received bytes into frames.
//
// Frame layout (offsets from the sync byte; n = payload length):
//   0      sync 0xA5
//   1      bit 7: CRC present; bits 6..4: zero; bits 3..0: length bits 11..8
//   2      length bits 7..0; the length counts pid through the end of the payload
//   3      pid
//   4      sid
//   5..6   n, high byte first (only with a payload)
//   7..    payload (only with a payload)
//   3+len  CRC-16/XMODEM of bytes 1 .. 2+len, high byte first (only with bit 7 of byte 1)
//   last   tail 0xA5
// Header fields are always high byte first; the byte-order mode applies to payload values.
#pragma once

#include <ntddk.h>

#define HCI_SYNC 0xA5
#define HCI_TAIL 0xA5
#define HCI_PAD 0xFF // fills a transmit buffer after the tail

#define HCI_CRC_PRESENT 0x80 // byte 1
#define HCI_LEN_RESERVED 0x70
#define HCI_LEN_HIGH 0x0F

#define HCI_HEADER_SIZE 5 // sync, two length bytes, pid, sid
#define HCI_PAYLOAD_OFFSET 7
#define HCI_FRAME_MIN 6 // header and tail, no payload, no CRC

// The builder accepts payloads up to HCI_PAYLOAD_MAX bytes; only those up to
// HCI_PAYLOAD_WELL_FORMED fit the 12-bit length field.
#define HCI_PAYLOAD_MAX 4096
#define HCI_PAYLOAD_WELL_FORMED 4091

// Identifiers a receiver accepts: pid 0..HCI_PID_LAST or HCI_PID_NMEA, sid below HCI_SID_LIMIT.
#define HCI_PID_LAST 50
#define HCI_SID_LIMIT 15

// Command groups (pid) the driver and the chip use.
#define HCI_PID_MEM_READ 0x04
#define HCI_PID_MEM_WRITE 0x05
#define HCI_PID_AGPS 0x06
#define HCI_PID_RF_REGISTER 0x10
#define HCI_PID_BAUD_RATE 0x16
#define HCI_PID_START 0x20
#define HCI_PID_OUTPUT_OPTION 0x22
#define HCI_PID_GEOFENCE 0x30
#define HCI_PID_STATUS 0x32 // periodic chip status; never queued for clients
#define HCI_PID_NMEA 0xFF

constexpr bool hci_ids_valid(UCHAR pid, UCHAR sid)
{
    return (pid <= HCI_PID_LAST || pid == HCI_PID_NMEA) && sid < HCI_SID_LIMIT;
}

// ---------------------------------------------------------------------------------------
// CRC and transmit packets
// ---------------------------------------------------------------------------------------

// CRC-16/XMODEM: polynomial 0x1021, initial value 0, no reflection, no final XOR.
USHORT hci_crc16(const UCHAR* data, USHORT count);

struct hci_tx_packet {
    UCHAR crc_flag; // non-zero: the frame carries a CRC
    UCHAR pid;
    UCHAR sid;
    UCHAR has_payload;
    USHORT payload_len;
    PUCHAR payload;    // into buffer at HCI_PAYLOAD_OFFSET, or NULL
    PUCHAR buffer;     // the frame and its 0xFF padding
    USHORT buffer_len; // the frame rounded up to a multiple of 8; all of it is transmitted
    USHORT payload_len_copy;
};

// A non-null payload with payload_len 0 means no payload. Returns NULL (after logging) for a
// missing payload, a payload above HCI_PAYLOAD_MAX, or a failed allocation. The caller
// releases the packet with free_hci_tx_packet.
_IRQL_requires_max_(DISPATCH_LEVEL) hci_tx_packet* create_hci_tx_packet(UCHAR crc_flag, UCHAR pid,
                                                                        UCHAR sid,
                                                                        const UCHAR* payload,
                                                                        USHORT payload_len);
_IRQL_requires_max_(DISPATCH_LEVEL) VOID free_hci_tx_packet(hci_tx_packet* packet);

// ---------------------------------------------------------------------------------------
// Byte order of payload values
// ---------------------------------------------------------------------------------------

#define HCI_LITTLE_ENDIAN 1 // any other mode is big-endian

// Set by the chip start-up; nothing sets it back.
extern ULONG hci_endian_mode;

LONG set_hci_endian_mode(ULONG mode);
VOID put_u16_ordered(USHORT value, PUCHAR dest);
VOID put_u32_ordered(ULONG value, PUCHAR dest);
ULONG get_u32_ordered(UCHAR b0, UCHAR b1, UCHAR b2, UCHAR b3);

constexpr USHORT make_u16_be(UCHAR a, UCHAR b)
{
    return (USHORT)((a << 8) | b);
}
constexpr USHORT make_u16_le(UCHAR a, UCHAR b)
{
    return (USHORT)((b << 8) | a);
}
constexpr ULONG make_u32_le(UCHAR b0, UCHAR b1, UCHAR b2, UCHAR b3)
{
    return ((ULONG)b3 << 24) | ((ULONG)b2 << 16) | ((ULONG)b1 << 8) | b0;
}

// ---------------------------------------------------------------------------------------
// Diagnostic hex dump
// ---------------------------------------------------------------------------------------

#define HCI_HEX_DUMP_ENTRIES 16
#define HCI_HEX_DUMP_LINE_SIZE (HCI_HEX_DUMP_ENTRIES * 3 + 1)

// One shared line of up to 16 "%02x " entries; every 16th byte starts it again. Read from a
// debugger: the dump prints nothing itself.
extern CHAR hci_hex_dump_line[HCI_HEX_DUMP_LINE_SIZE];

VOID hci_hex_dump(const UCHAR* data, ULONG count);

// ---------------------------------------------------------------------------------------
// Receive reassembly
// ---------------------------------------------------------------------------------------

// check_pkt_status results.
enum hci_pkt_status : LONG {
    PKT_NO_SYNC = -6, // first byte is not the sync byte
    PKT_NO_TAIL = -5, // the whole frame is present but its last byte is not the tail
    PKT_SHORT = -4,   // fewer than HCI_FRAME_MIN bytes available
    PKT_LARGE = -3,   // reserved length bits set, or a frame that could never be complete
    PKT_IPSID = -2,   // pid or sid out of range
    PKT_PART = -1,    // a well-formed start of a frame that extends past the bytes available
    PKT_FULL = 1,     // a complete frame with a good tail
};

#define HCI_CIRC_CAPACITY 4096
#define HCI_HEX_DUMP_MAX 1024 // longest dump of received bytes

// The carry-over buffer: the start of a frame that a read left incomplete.
struct hci_circ {
    PUCHAR circ_buf;      // the first byte is the start of the frame being assembled
    USHORT circ_count;    // bytes held; 0 = nothing carried over
    USHORT circ_capacity; // size of circ_buf
};

// Handler of complete frames: (frame, total length, 1 when it carries a CRC, device context).
// The bytes are valid only during the call.
typedef LONG (*pkt_parse_callback_fn)(const UCHAR* frame, USHORT len, UCHAR crc_flag,
                                      PVOID context);

// Diagnostic counters of the receive path; they persist across calls and drive the give-up
// rule of process_buff.
extern ULONG cnt_no_sync;
extern ULONG cnt_full;
extern ULONG cnt_short;
extern ULONG cnt_part;
extern ULONG cnt_large;
extern ULONG cnt_ipsid;
extern ULONG cnt_no_tail;

extern pkt_parse_callback_fn pkt_parse_callback;

// Points the record at the driver's single static carry-over area, empty.
VOID init_hci_circ(hci_circ* circ);

// Empties the carry-over buffer; its capacity stays.
FORCEINLINE VOID reset_circ(hci_circ* circ)
{
    circ->circ_count = 0;
    if (circ->circ_buf != NULL) {
        circ->circ_buf[0] = 0;
    }
}

// Stores the total frame length in *total only for PKT_FULL.
LONG check_pkt_status(const UCHAR* bytes, USHORT available, USHORT* total);
// The status's name ("PKT_FULL", ...), or "unknown pkt st".
PCSTR pkt_status_name(LONG status);

VOID set_pkt_parse_callback(pkt_parse_callback_fn callback);
// -1 for a rejected frame, else the callback's result (0 without a callback).
LONG parse_one_packet(const UCHAR* frame, USHORT len, PVOID context);
// 0, or -1 when too many bad frames came since the last good one and the input was dropped.
LONG process_buff(const UCHAR* data, USHORT len, PVOID context, hci_circ* circ);
// Called by the read thread for every non-empty read.
VOID recv_hci_buffer(const UCHAR* data, USHORT len, PVOID context, hci_circ* circ);
