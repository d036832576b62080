// Classification of received bytes and the final checks of a complete frame.
#include <gmock/gmock.h>

#include "link_fixture.h"

namespace mvgps::test
{
namespace
{

using testing::HasSubstr;

using StatusTest = LinkTest;

TEST_F(StatusTest, ClassifiesTheStartOfABuffer)
{
    struct Case {
        const char* name;
        Bytes bytes;
        LONG status;
        USHORT total; // written only for PKT_FULL
    };
    const Case cases[] = {
        {"empty", {}, PKT_SHORT, 0},
        {"no sync", {0x00, 0xA5, 0x00, 0x02, 0x01, 0x01, 0xA5}, PKT_NO_SYNC, 0},
        {"five bytes", {0xA5, 0x00, 0x02, 0x01, 0x01}, PKT_SHORT, 0},
        {"sync only", {0xA5}, PKT_SHORT, 0},
        {"smallest frame", {0xA5, 0x00, 0x02, 0x01, 0x01, 0xA5}, PKT_FULL, 6},
        {"pid 50, sid 14", {0xA5, 0x00, 0x02, 0x32, 0x0E, 0xA5}, PKT_FULL, 6},
        {"pid 255", {0xA5, 0x00, 0x02, 0xFF, 0x00, 0xA5}, PKT_FULL, 6},
        {"pid 51", {0xA5, 0x00, 0x02, 0x33, 0x00, 0xA5}, PKT_IPSID, 0},
        {"pid 254", {0xA5, 0x00, 0x02, 0xFE, 0x00, 0xA5}, PKT_IPSID, 0},
        {"sid 15", {0xA5, 0x00, 0x02, 0x01, 0x0F, 0xA5}, PKT_IPSID, 0},
        {"identifiers before reserved bits", {0xA5, 0x70, 0x02, 0x33, 0x00, 0xA5}, PKT_IPSID, 0},
        {"reserved bit 4", {0xA5, 0x10, 0x02, 0x01, 0x01, 0xA5}, PKT_LARGE, 0},
        {"reserved bit 6", {0xA5, 0xC0, 0x02, 0x01, 0x01, 0xA5}, PKT_LARGE, 0},
        {"longer than available", {0xA5, 0x00, 0x03, 0x01, 0x01, 0xA5}, PKT_PART, 0},
        {"longest length, partial", {0xA5, 0x8F, 0xFF, 0x01, 0x01, 0xA5}, PKT_PART, 0},
        {"bad tail", {0xA5, 0x00, 0x02, 0x01, 0x01, 0x00}, PKT_NO_TAIL, 0},
        {"crc frame", {0xA5, 0x80, 0x02, 0x01, 0x01, 0x00, 0x00, 0xA5}, PKT_FULL, 8},
        {"trailing bytes", {0xA5, 0x00, 0x02, 0x01, 0x01, 0xA5, 0xFF, 0xFF}, PKT_FULL, 6},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        USHORT total = 0xBEEF;
        EXPECT_EQ(check_pkt_status(c.bytes.data(), static_cast<USHORT>(c.bytes.size()), &total),
                  c.status);
        EXPECT_EQ(total, c.status == PKT_FULL ? c.total : 0xBEEF);
    }
}

TEST_F(StatusTest, StatusNames)
{
    const std::pair<LONG, const char*> names[] = {
        {-6, "PKT_NO_SYNC"},   {-5, "PKT_NO_TAIL"},    {-4, "PKT_SHORT"}, {-3, "PKT_LARGE"},
        {-2, "PKT_IPSID"},     {-1, "PKT_PART"},       {1, "PKT_FULL"},   {0, "unknown pkt st"},
        {2, "unknown pkt st"}, {-7, "unknown pkt st"},
    };
    for (const auto& [status, name] : names) {
        EXPECT_STREQ(pkt_status_name(status), name) << status;
    }
}

TEST_F(StatusTest, ParseOnePacketChecksLengthMarksAndCrc)
{
    const Bytes good = tx_frame(1, 0x01, 0x02, {0x10, 0x20});
    Bytes bad_crc = good;
    bad_crc[7] ^= 0x01;
    Bytes bad_sync = good;
    bad_sync[0] = 0x00;
    Bytes bad_tail = good;
    bad_tail.back() = 0x00;
    Bytes bad_both = bad_sync;
    bad_both.back() = 0x00;

    struct Case {
        const char* name;
        Bytes frame;
        USHORT len;
        LONG result;
        bool delivered;
        std::string message;
    };
    const Case cases[] = {
        {"good", good, USHORT(good.size()), 7, true, ""},
        {"shorter than its length", good, USHORT(good.size() - 1), -1, false,
         "length: 11, pkt_len: 12"},
        {"crc error", bad_crc, USHORT(bad_crc.size()), -1, false, "pid 01, sid 02, CRC error"},
        // One wrong mark passes: the receive scan has checked both already.
        {"wrong sync only", bad_sync, USHORT(bad_sync.size()), 7, true, ""},
        {"wrong tail only", bad_tail, USHORT(bad_tail.size()), 7, true, ""},
        {"both marks wrong", bad_both, USHORT(bad_both.size()), -1, false,
         "packet feature code error!"},
        {"no length bytes", good, 2, -1, false, "length: 2, pkt_len: 6"},
    };
    recorder_.result = 7;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        recorder_.frames.clear();
        kernel::clear_debug_output();
        EXPECT_EQ(parse_one_packet(c.frame.data(), c.len, &recorder_), c.result);
        ASSERT_EQ(recorder_.frames.size(), c.delivered ? 1u : 0u);
        if (c.delivered) {
            EXPECT_EQ(recorder_.frames[0].frame, c.frame);
            EXPECT_EQ(recorder_.frames[0].crc_flag, 1);
        } else {
            EXPECT_THAT(log(), HasSubstr(log_line("parse_one_packet", c.message)));
        }
    }

    // Without a handler a good frame is accepted and goes nowhere.
    set_pkt_parse_callback(nullptr);
    EXPECT_EQ(parse_one_packet(good.data(), USHORT(good.size()), &recorder_), 0);
}

} // namespace
} // namespace mvgps::test
