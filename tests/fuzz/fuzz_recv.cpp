// Random bytes in random read sizes through the receive path. Every frame handed to the
// packet handler must be whole and, when it says it carries a CRC, carry the right one by
// the CRC computed bit by bit, which the driver's CRC of the whole input must match too;
// the sanitizers catch any access outside the reads and the carry-over area.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "link/codec/hci.h"

namespace
{

// The CRC one bit at a time, straight from the polynomial.
USHORT crc16_bitwise(const UCHAR* data, std::size_t count)
{
    USHORT crc = 0;
    for (std::size_t i = 0; i < count; i++) {
        crc ^= static_cast<USHORT>(data[i] << 8);
        for (int bit = 0; bit < 8; bit++) {
            crc = static_cast<USHORT>((crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1);
        }
    }
    return crc;
}

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
        make_u16_be(frame[len - 3], frame[len - 2]) != crc16_bitwise(frame + 1, len - 4u)) {
        fail("wrong CRC", frame, len);
    }
    return 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static std::vector<UCHAR> delivered;
    // Each input starts from a freshly loaded driver's receive state.
    hci_circ circ;
    init_hci_circ(&circ);
    set_pkt_parse_callback(check_frame);
    cnt_no_sync = cnt_full = cnt_short = cnt_part = 0;
    cnt_large = cnt_ipsid = cnt_no_tail = 0;

    if (size <= 0xFFFF && hci_crc16(data, static_cast<USHORT>(size)) != crc16_bitwise(data, size)) {
        fail("CRC differs from the bitwise CRC", data, static_cast<USHORT>(size));
    }

    FuzzedDataProvider input(data, size);
    while (input.remaining_bytes() > 0) {
        // A read of its exact size, so that a byte read past it is caught.
        const auto n = input.ConsumeIntegralInRange<std::size_t>(1, 2048);
        std::vector<UCHAR> read = input.ConsumeBytes<UCHAR>(n);
        if (read.empty()) {
            break;
        }
        recv_hci_buffer(read.data(), static_cast<USHORT>(read.size()), &delivered, &circ);
        if (circ.circ_count > circ.circ_capacity) {
            std::fprintf(stderr, "fuzz_recv: carry-over count %u over capacity\n", circ.circ_count);
            std::abort();
        }
    }
    return 0;
}
