// Byte-order helpers and the diagnostic dump line.
#include <cstring>

#include "link_fixture.h"

namespace mvgps::test
{
namespace
{

using HelperTest = LinkTest;

TEST_F(HelperTest, OrderedValuesFollowTheMode)
{
    struct Case {
        ULONG mode;
        Bytes u16;     // put_u16_ordered(0x1234)
        Bytes u32;     // put_u32_ordered(0x12345678)
        ULONG get0001; // get_u32_ordered(00, 00, 00, 01)
    };
    const Case cases[] = {
        {0, {0x12, 0x34}, {0x12, 0x34, 0x56, 0x78}, 0x00000001},
        {1, {0x34, 0x12}, {0x78, 0x56, 0x34, 0x12}, 0x01000000},
        {2, {0x12, 0x34}, {0x12, 0x34, 0x56, 0x78}, 0x00000001}, // anything but 1 is big-endian
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.mode);
        EXPECT_EQ(set_hci_endian_mode(c.mode), 0);
        EXPECT_EQ(hci_endian_mode, c.mode);
        Bytes u16(2), u32(4);
        put_u16_ordered(0x1234, u16.data());
        put_u32_ordered(0x12345678, u32.data());
        EXPECT_EQ(u16, c.u16);
        EXPECT_EQ(u32, c.u32);
        EXPECT_EQ(get_u32_ordered(0, 0, 0, 1), c.get0001);
        // Whatever the mode, a value read back is the value written.
        EXPECT_EQ(get_u32_ordered(u32[0], u32[1], u32[2], u32[3]), 0x12345678u);
        // The fixed-order helpers ignore the mode.
        EXPECT_EQ(make_u16_be(0x12, 0x34), 0x1234);
        EXPECT_EQ(make_u16_le(0x12, 0x34), 0x3412);
        EXPECT_EQ(make_u32_le(0x78, 0x56, 0x34, 0x12), 0x12345678u);
    }
}

TEST_F(HelperTest, HexDumpKeepsOneLine)
{
    struct Case {
        const char* name;
        Bytes data;
        const char* line;
    };
    Bytes sixteen, seventeen, many(1024);
    for (int i = 0; i < 17; i++) {
        (i < 16 ? sixteen : seventeen).push_back(static_cast<std::uint8_t>(i));
    }
    seventeen.insert(seventeen.begin(), sixteen.begin(), sixteen.end());
    for (std::size_t i = 0; i < many.size(); i++) {
        many[i] = static_cast<std::uint8_t>(i % 16 == 0 ? 0xAB : 0xCD);
    }
    const Case cases[] = {
        {"three", {0x01, 0xAB, 0xFF}, "01 ab ff "},
        {"sixteen", sixteen, "00 01 02 03 04 05 06 07 08 09 0a 0b 0c 0d 0e 0f "},
        {"seventeen: the line starts again", seventeen, "10 "},
        {"a long dump ends with its last line", many,
         "ab cd cd cd cd cd cd cd cd cd cd cd cd cd cd cd "},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        std::memset(hci_hex_dump_line, 'x', sizeof hci_hex_dump_line);
        hci_hex_dump(c.data.data(), static_cast<ULONG>(c.data.size()));
        EXPECT_STREQ(hci_hex_dump_line, c.line);
    }

    // Nothing to dump leaves the line as it was.
    hci_hex_dump(nullptr, 5);
    hci_hex_dump(sixteen.data(), 0);
    EXPECT_STREQ(hci_hex_dump_line, cases[3].line);
}

} // namespace
} // namespace mvgps::test
