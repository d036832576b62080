// Random bytes in random read sizes through the receive path. Every frame handed to the
// packet handler must be whole and, when it says it carries a CRC, carry the right one by a
// reference CRC, which the driver's CRC of the input's first bytes must match too;
// the sanitizers catch any access outside the reads and the carry-over area.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>

#include "link/codec/hci.h"
#include "os/debug_log.h"

namespace
{

// The reference CRC: a table of what each byte does, made one bit at a time straight from
// the polynomial, and one lookup a byte. It shares nothing with the driver's sixteen-byte
// steps.
struct ReferenceCrc {
    USHORT table[256];

    ReferenceCrc()
    {
        for (unsigned b = 0; b < 256; b++) {
            USHORT crc = static_cast<USHORT>(b << 8);
            for (int bit = 0; bit < 8; bit++) {
                crc = static_cast<USHORT>((crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1);
            }
            table[b] = crc;
        }
    }

    USHORT operator()(const UCHAR* data, std::size_t count) const
    {
        USHORT crc = 0;
        for (std::size_t i = 0; i < count; i++) {
            crc = static_cast<USHORT>((crc << 8) ^ table[(crc >> 8) ^ data[i]]);
        }
        return crc;
    }
};

const ReferenceCrc crc16_reference;

// The driver's UART reads are at most this long.
constexpr std::size_t kReadMax = 2048;

[[noreturn]] void fail(const char* what, const UCHAR* frame, USHORT len)
{
    std::fprintf(stderr, "fuzz_recv: %s (frame of %u bytes:", what, len);
    for (USHORT i = 0; i < len && i < 32; i++) {
        std::fprintf(stderr, " %02x", frame[i]);
    }
    std::fprintf(stderr, ")\n");
    std::abort();
}

LONG check_frame(const UCHAR* frame, USHORT len, UCHAR crc_flag, PVOID context)
{
    auto* delivered = static_cast<std::vector<UCHAR>*>(context);
    // Reading every byte lets the sanitizer see where the frame really lies.
    delivered->assign(frame, frame + len);

    if (len < HCI_FRAME_MIN || frame[0] != HCI_SYNC || frame[len - 1] != HCI_TAIL) {
        fail("frame without sync or tail", frame, len);
    }
    if (crc_flag != ((frame[1] & HCI_CRC_PRESENT) != 0 ? 1 : 0)) {
        fail("crc flag disagrees with the header", frame, len);
    }
    const unsigned length = make_u16_be(frame[1] & 0x7F, frame[2]);
    if (len != length + (crc_flag ? 6u : 4u)) {
        fail("length disagrees with the header", frame, len);
    }
    if (crc_flag &&
        make_u16_be(frame[len - 3], frame[len - 2]) != crc16_reference(frame + 1, len - 4u)) {
        fail("wrong CRC", frame, len);
    }
    return 0;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    DebugLogMask = 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static std::vector<UCHAR> delivered;
    static const std::unique_ptr<UCHAR[]> read_block(new UCHAR[kReadMax]);
    // Each input starts from a freshly loaded driver's receive state.
    hci_circ circ;
    init_hci_circ(&circ);
    set_pkt_parse_callback(check_frame);
    cnt_no_sync = cnt_full = cnt_short = cnt_part = 0;
    cnt_large = cnt_ipsid = cnt_no_tail = 0;

    // A prefix covers every alignment, block count and tail of the CRC's sixteen-byte steps.
    const auto prefix = static_cast<USHORT>(std::min<std::size_t>(size, 256));
    if (hci_crc16(data, prefix) != crc16_reference(data, prefix)) {
        fail("CRC differs from the reference CRC", data, prefix);
    }

    FuzzedDataProvider input(data, size);
    while (input.remaining_bytes() > 0) {
        // A read at the very end of its block, so that a byte read past it is caught.
        std::size_t n = input.ConsumeIntegralInRange<std::size_t>(1, kReadMax);
        n = std::min(n, input.remaining_bytes());
        if (n == 0) {
            break;
        }
        UCHAR* read = read_block.get() + kReadMax - n;
        input.ConsumeData(read, n);
        recv_hci_buffer(read, static_cast<USHORT>(n), &delivered, &circ);
        if (circ.circ_count > circ.circ_capacity) {
            std::fprintf(stderr, "fuzz_recv: carry-over count %u over capacity\n", circ.circ_count);
            std::abort();
        }
    }
    return 0;
}
