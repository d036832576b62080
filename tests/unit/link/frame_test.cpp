// Transmit frames: CRC, layout, padding, size limits and allocation failures.
#include <gmock/gmock.h>

#include <random>

#include "link_fixture.h"
#include "os/pool_tags.h"

namespace mvgps::test
{
namespace
{

using testing::HasSubstr;

// Bit by bit, as the polynomial defines it: an independent check of the table.
std::uint16_t reference_crc(const Bytes& data)
{
    std::uint16_t crc = 0;
    for (std::uint8_t byte : data) {
        crc ^= static_cast<std::uint16_t>(byte << 8);
        for (int bit = 0; bit < 8; bit++) {
            crc = (crc & 0x8000) ? static_cast<std::uint16_t>((crc << 1) ^ 0x1021)
                                 : static_cast<std::uint16_t>(crc << 1);
        }
    }
    return crc;
}

using FrameTest = LinkTest;

TEST_F(FrameTest, CrcIsXmodem)
{
    const Bytes digits{'1', '2', '3', '4', '5', '6', '7', '8', '9'};
    EXPECT_EQ(hci_crc16(digits.data(), 9), 0x31C3);
    EXPECT_EQ(hci_crc16(digits.data(), 0), 0);

    std::mt19937_64 random(sched_.get().seed());
    for (int i = 0; i < 200; i++) {
        Bytes data(random() % 300);
        for (auto& b : data) {
            b = static_cast<std::uint8_t>(random());
        }
        ASSERT_EQ(hci_crc16(data.data(), static_cast<USHORT>(data.size())), reference_crc(data))
            << "length " << data.size();
    }
}

struct BuildCase {
    const char* name;
    std::uint8_t crc, pid, sid;
    const char* payload;
    const char* expected; // the whole transmitted buffer
};

TEST_F(FrameTest, BuildsPaddedFrames)
{
    const BuildCase cases[] = {
        {"crc, no payload", 1, 0xFF, 2, "", "A5 80 02 FF 02 90 E5 A5"},
        {"no crc, no payload", 0, 0x20, 6, "", "A5 00 02 20 06 A5 FF FF"},
        {"crc, one byte", 1, 0x04, 1, "5A", "A5 80 05 04 01 00 01 5A DF C4 A5 FF FF FF FF FF"},
        {"no crc, six bytes", 0, 0x06, 0, "01 02 03 04 05 06",
         "A5 00 0A 06 00 00 06 01 02 03 04 05 06 A5 FF FF"},
    };
    for (const BuildCase& c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes payload = hex(c.payload);
        hci_tx_packet* packet =
            create_hci_tx_packet(c.crc, c.pid, c.sid, payload.empty() ? nullptr : payload.data(),
                                 static_cast<USHORT>(payload.size()));
        ASSERT_NE(packet, nullptr);
        EXPECT_EQ(Bytes(packet->buffer, packet->buffer + packet->buffer_len), hex(c.expected));
        EXPECT_EQ(packet->crc_flag, c.crc);
        EXPECT_EQ(packet->pid, c.pid);
        EXPECT_EQ(packet->sid, c.sid);
        const bool has_payload = !payload.empty();
        EXPECT_EQ(packet->has_payload, has_payload ? 1 : 0);
        EXPECT_EQ(packet->payload_len, payload.size());
        EXPECT_EQ(packet->payload_len_copy, payload.size());
        EXPECT_EQ(packet->payload, has_payload ? packet->buffer + 7 : nullptr);
        free_hci_tx_packet(packet);
    }

    // A payload pointer with length 0 is no payload at all.
    const UCHAR ignored = 0x42;
    hci_tx_packet* packet = create_hci_tx_packet(0, 0x20, 6, &ignored, 0);
    ASSERT_NE(packet, nullptr);
    EXPECT_EQ(Bytes(packet->buffer, packet->buffer + packet->buffer_len), hex(cases[1].expected));
    EXPECT_EQ(packet->payload, nullptr);
    free_hci_tx_packet(packet);
}

TEST_F(FrameTest, PayloadLengthLimits)
{
    struct Case {
        USHORT length;
        bool built;
        LONG receive_status; // what a receiver makes of the frame
    };
    const Case cases[] = {
        {4091, true, PKT_FULL},  // the longest well-formed frame
        {4092, true, PKT_LARGE}, // length 0x1000 spills into a reserved bit
        {4096, true, PKT_LARGE}, // the longest accepted
        {4097, false, 0},
    };
    Bytes payload(4097, 0x11);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.length);
        kernel::clear_debug_output();
        hci_tx_packet* packet = create_hci_tx_packet(1, 0x05, 1, payload.data(), c.length);
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
        if (c.receive_status == PKT_FULL) {
            EXPECT_EQ(total, c.length + 10);
        }
        free_hci_tx_packet(packet);
    }
}

TEST_F(FrameTest, RefusesMissingPayload)
{
    EXPECT_EQ(create_hci_tx_packet(1, 1, 1, nullptr, 1), nullptr);
    EXPECT_THAT(log(), HasSubstr(log_line("create_hci_tx_packet", "invalid arguments\n")));
    free_hci_tx_packet(nullptr);
}

TEST_F(FrameTest, AllocationFailureLeavesNothingAllocated)
{
    struct Case {
        std::uint64_t failing; // which driver-tag allocation fails
        const char* message;
    };
    const Case cases[] = {
        {1, "failed to alloc packet struct\n"},
        {2, "failed to alloc packet\n"},
    };
    const std::uint8_t payload[3] = {1, 2, 3};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        const auto before = kernel::pool_stats(DRIVER_POOL_TAG).live_blocks;
        kernel::clear_debug_output();
        kernel::add_pool_fault(kernel::fail_nth(c.failing, DRIVER_POOL_TAG));
        EXPECT_EQ(create_hci_tx_packet(1, 1, 1, payload, 3), nullptr);
        kernel::clear_pool_faults();
        EXPECT_THAT(log(), HasSubstr(log_line("create_hci_tx_packet", c.message)));
        EXPECT_EQ(kernel::pool_stats(DRIVER_POOL_TAG).live_blocks, before);
    }
}

// Every frame the driver builds is one the receive path accepts, unchanged.
TEST_F(FrameTest, BuiltFramesAreReceivedIntact)
{
    std::mt19937_64 random(sched_.get().seed());
    for (std::size_t length : {0, 1, 2, 7, 8, 9, 100, 255, 256, 1000, 2040}) {
        for (std::uint8_t crc : {0, 1}) {
            SCOPED_TRACE(testing::Message() << "length " << length << " crc " << int(crc));
            Bytes payload(length);
            for (auto& b : payload) {
                b = static_cast<std::uint8_t>(random());
            }
            const std::uint8_t pid = static_cast<std::uint8_t>(random() % 51);
            const std::uint8_t sid = static_cast<std::uint8_t>(random() % 15);
            recorder_.frames.clear();
            scan(tx_frame(crc, pid, sid, payload, true));
            ASSERT_EQ(recorder_.frames.size(), 1u);
            EXPECT_EQ(recorder_.frames[0].frame, tx_frame(crc, pid, sid, payload));
            EXPECT_EQ(recorder_.frames[0].crc_flag, crc);
            EXPECT_EQ(circ_.circ_count, 0);
        }
    }
}

} // namespace
} // namespace mvgps::test
