// Transmit frames (CRC, layout, padding, size limits, allocation failures) and the byte-order
// helpers payloads are written with.
#include <cstdio>
#include <cstring>

#include "link_fixture.h"
#include "os/pool_tags.h"

namespace mvgps::test
{
namespace
{

using FrameTest = LinkTest;

// The CRC one bit at a time, straight from the polynomial.
std::uint16_t crc16_bitwise(const std::uint8_t* data, std::size_t count)
{
    std::uint16_t crc = 0;
    for (std::size_t i = 0; i < count; i++) {
        crc ^= static_cast<std::uint16_t>(data[i] << 8);
        for (int bit = 0; bit < 8; bit++) {
            crc = static_cast<std::uint16_t>((crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1);
        }
    }
    return crc;
}

TEST_F(FrameTest, CrcIsXmodem)
{
    EXPECT_EQ(hci_crc16(reinterpret_cast<const UCHAR*>("123456789"), 9), 0x31C3);
    EXPECT_EQ(hci_crc16(nullptr, 0), 0);
    EXPECT_EQ(hci_crc16(reinterpret_cast<const UCHAR*>("\xFF\x00\x80"), 3), 0x5EEB);
    // Every length up to a few blocks of the sliced computation, the odd bytes before the
    // first block included, and the longest count, against the bitwise CRC.
    Bytes data(65535);
    for (std::size_t i = 0; i < data.size(); i++) {
        data[i] = static_cast<std::uint8_t>((i * 2654435761u) >> 13);
    }
    for (std::size_t n = 0; n <= 100; n++) {
        ASSERT_EQ(hci_crc16(data.data() + 3, static_cast<USHORT>(n)),
                  crc16_bitwise(data.data() + 3, n))
            << n << " bytes";
    }
    EXPECT_EQ(hci_crc16(data.data(), 65535), crc16_bitwise(data.data(), 65535));
}

TEST_F(FrameTest, BuildsPaddedFrames)
{
    const UCHAR ignored = 0x42;
    struct Case {
        std::uint8_t crc, pid, sid;
        const char* payload;
        const UCHAR* empty_payload; // passed when there is no payload
        const char* expected;       // the whole transmitted buffer
    };
    const Case cases[] = {
        {1, 0xFF, 2, "", nullptr, "A5 80 02 FF 02 90 E5 A5"},
        {0, 0x20, 6, "", nullptr, "A5 00 02 20 06 A5 FF FF"},
        // A payload pointer with length 0 is no payload at all.
        {0, 0x20, 6, "", &ignored, "A5 00 02 20 06 A5 FF FF"},
        {1, 0x04, 1, "5A", nullptr, "A5 80 05 04 01 00 01 5A DF C4 A5 FF FF FF FF FF"},
        {0, 0x06, 0, "01 02 03 04 05 06", nullptr,
         "A5 00 0A 06 00 00 06 01 02 03 04 05 06 A5 FF FF"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.expected);
        const Bytes payload = hex(c.payload);
        const bool has_payload = !payload.empty();
        hci_tx_packet* packet = create_hci_tx_packet(c.crc, c.pid, c.sid,
                                                     has_payload ? payload.data() : c.empty_payload,
                                                     static_cast<USHORT>(payload.size()));
        ASSERT_NE(packet, nullptr);
        EXPECT_EQ(Bytes(packet->buffer, packet->buffer + packet->buffer_len), hex(c.expected));
        EXPECT_EQ(packet->has_payload, has_payload ? 1 : 0);
        EXPECT_EQ(packet->payload_len, payload.size());
        EXPECT_EQ(packet->payload, has_payload ? packet->buffer + 7 : nullptr);
        free_hci_tx_packet(packet);
    }
    free_hci_tx_packet(nullptr);
}

TEST_F(FrameTest, PayloadLimits)
{
    struct Case {
        USHORT length;
        bool null_payload;
        bool built;
        LONG receive_status; // what a receiver makes of the frame
    };
    const Case cases[] = {
        {1, true, false, 0},            // a length without bytes
        {4091, false, true, PKT_FULL},  // the longest well-formed frame
        {4092, false, true, PKT_LARGE}, // length 0x1000 spills into a reserved bit
        {4096, false, true, PKT_LARGE}, // the longest accepted
        {4097, false, false, 0},
    };
    Bytes payload(4097, 0x11);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.length);
        kernel::clear_debug_output();
        hci_tx_packet* packet =
            create_hci_tx_packet(1, 0x05, 1, c.null_payload ? nullptr : payload.data(), c.length);
        if (!c.built) {
            EXPECT_EQ(packet, nullptr);
            EXPECT_THAT(log(), HasSubstr(log_line("create_hci_tx_packet", "invalid arguments\n")));
            continue;
        }
        ASSERT_NE(packet, nullptr);
        EXPECT_EQ(packet->buffer_len, (c.length + 10 + 7) & ~7);
        EXPECT_EQ(packet->buffer[1] & 0x10, c.length >= 4092 ? 0x10 : 0);
        USHORT total = 0;
        EXPECT_EQ(check_pkt_status(packet->buffer, packet->buffer_len, &total), c.receive_status);
        EXPECT_EQ(total, c.receive_status == PKT_FULL ? c.length + 10 : 0);
        free_hci_tx_packet(packet);
    }
}

TEST_F(FrameTest, AllocationFailureLeavesNothingAllocated)
{
    const std::uint8_t payload[3] = {1, 2, 3};
    // Which driver-tag allocation fails: the packet record, then its buffer.
    for (const auto& [failing, message] :
         {std::pair<int, const char*>{1, "failed to alloc packet struct\n"},
          {2, "failed to alloc packet\n"}}) {
        SCOPED_TRACE(message);
        const auto before = kernel::pool_stats(DRIVER_POOL_TAG).live_blocks;
        kernel::clear_debug_output();
        kernel::add_pool_fault(kernel::fail_nth(failing, DRIVER_POOL_TAG));
        EXPECT_EQ(create_hci_tx_packet(1, 1, 1, payload, 3), nullptr);
        kernel::clear_pool_faults();
        EXPECT_THAT(log(), HasSubstr(log_line("create_hci_tx_packet", message)));
        EXPECT_EQ(kernel::pool_stats(DRIVER_POOL_TAG).live_blocks, before);
    }
}

TEST_F(FrameTest, OrderedValuesFollowTheMode)
{
    // The mode, then put_u16_ordered(0x1234) and put_u32_ordered(0x12345678).
    const std::tuple<ULONG, Bytes, Bytes> cases[] = {
        {0, {0x12, 0x34}, {0x12, 0x34, 0x56, 0x78}},
        {1, {0x34, 0x12}, {0x78, 0x56, 0x34, 0x12}},
        {2, {0x12, 0x34}, {0x12, 0x34, 0x56, 0x78}}, // anything but 1 is big-endian
    };
    for (const auto& [mode, u16, u32] : cases) {
        SCOPED_TRACE(mode);
        EXPECT_EQ(set_hci_endian_mode(mode), 0);
        Bytes put16(2), put32(4);
        put_u16_ordered(0x1234, put16.data());
        put_u32_ordered(0x12345678, put32.data());
        EXPECT_EQ(put16, u16);
        EXPECT_EQ(put32, u32);
        EXPECT_EQ(get_u32_ordered(u32[0], u32[1], u32[2], u32[3]), 0x12345678u);
    }
}

// The dump line as writing every byte in turn leaves it, for dumps shorter than the line,
// as long as it, and long enough to wrap many times at every offset.
TEST_F(FrameTest, HexDumpLeavesTheLineEveryByteWouldLeave)
{
    Bytes data(1024);
    for (std::size_t i = 0; i < data.size(); i++) {
        data[i] = static_cast<std::uint8_t>(i * 37 + 11);
    }
    for (ULONG count : {1u, 5u, 15u, 16u, 17u, 31u, 32u, 33u, 1000u, 1024u}) {
        char expected[HCI_HEX_DUMP_LINE_SIZE];
        std::memset(expected, 'x', sizeof(expected));
        std::memcpy(hci_hex_dump_line, expected, sizeof(expected));
        for (ULONG i = 0; i < count; i++) {
            std::snprintf(expected + (i % HCI_HEX_DUMP_ENTRIES) * 3, 4, "%02x ", data[i]);
        }
        hci_hex_dump(data.data(), count);
        EXPECT_EQ(std::string(hci_hex_dump_line, sizeof(expected)),
                  std::string(expected, sizeof(expected)))
            << count << " bytes";
    }
}

} // namespace
} // namespace mvgps::test
