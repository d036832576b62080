// Chip memory through the memory commands: the access width each write announces, the byte
// order of addresses, read-back, and the limits of both commands.
#include "data_path_fixture.h"

#include <numeric>

namespace mvgps::test
{
namespace
{

Bytes pattern(std::size_t n, std::uint8_t first = 1)
{
    Bytes b(n);
    std::iota(b.begin(), b.end(), first);
    return b;
}

struct WidthCase {
    std::uint32_t address;
    std::size_t length;
    std::uint8_t sid;
    friend void PrintTo(const WidthCase& c, std::ostream* os)
    {
        *os << std::hex << c.address << std::dec << "+" << c.length;
    }
};

class MemoryWidths : public DataPath, public testing::WithParamInterface<WidthCase>
{
};

TEST_P(MemoryWidths, WriteAnnouncesItsWidthAndLands)
{
    const WidthCase& c = GetParam();
    start_with_chip();
    ops().SetEndianMode(HCI_LITTLE_ENDIAN);
    Bytes data = pattern(c.length);
    ASSERT_EQ(ops().WriteMem(&ext(), c.address, data.data(), static_cast<USHORT>(c.length), 0), 0);

    std::vector<Frame> sent = chip_received(HCI_PID_MEM_WRITE);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].sid, c.sid);
    EXPECT_EQ(Bytes(sent[0].payload.begin(), sent[0].payload.begin() + 4),
              sim::testkit::le32(c.address));
    EXPECT_EQ(chip().peek(c.address, c.length), data);
}

INSTANTIATE_TEST_SUITE_P(DataPath, MemoryWidths,
                         testing::Values(WidthCase{0x20001000, 1, 1}, WidthCase{0x20001000, 2, 2},
                                         WidthCase{0x20001000, 4, 3}, WidthCase{0x20001000, 8, 4},
                                         WidthCase{0x20001000, 3, 0}, WidthCase{0x20001002, 8, 0},
                                         WidthCase{0x20001001, 4, 3},
                                         WidthCase{0x20001000, HCI_MEM_WRITE_MAX, 4}),
                         [](const testing::TestParamInfo<WidthCase>& info) {
                             return "at_" + std::to_string(info.param.address % 4) + "_len_" +
                                    std::to_string(info.param.length);
                         });

struct OrderCase {
    const char* name;
    ULONG mode;
    sim::chip::ByteOrder chip;
    Bytes address;
    friend void PrintTo(const OrderCase& c, std::ostream* os) { *os << c.name; }
};

class MemoryByteOrder : public DataPath, public testing::WithParamInterface<OrderCase>
{
};

// The driver starts big-endian and start-up switches it; a chip of either order is served
// by a driver in the same mode.
TEST_P(MemoryByteOrder, AddressFollowsTheModeAndReadsBack)
{
    const OrderCase& c = GetParam();
    sim::chip::ChipConfig config = quiet_chip();
    config.order = c.chip;
    start_with_chip(config);
    ops().SetEndianMode(c.mode);
    UCHAR value = 0x5A;
    ASSERT_EQ(ops().WriteMem(&ext(), HCI_CHIP_CTRL_BYTE, &value, 1, 0), 0);
    EXPECT_EQ(ops().ReadCtrlByte(&ext()), 0x5A);

    std::vector<Frame> writes = chip_received(HCI_PID_MEM_WRITE);
    std::vector<Frame> reads = chip_received(HCI_PID_MEM_READ);
    ASSERT_EQ(writes.size(), 1u);
    ASSERT_EQ(reads.size(), 1u);
    EXPECT_EQ(Bytes(writes[0].payload.begin(), writes[0].payload.begin() + 4), c.address);
    EXPECT_EQ(Bytes(reads[0].payload.begin(), reads[0].payload.begin() + 4), c.address);
}

INSTANTIATE_TEST_SUITE_P(
    DataPath, MemoryByteOrder,
    testing::Values(OrderCase{"little", 1, sim::chip::ByteOrder::Little, {0x14, 0x22, 0x00, 0xB9}},
                    OrderCase{"big", 0, sim::chip::ByteOrder::Big, {0xB9, 0x00, 0x22, 0x14}}),
    [](const testing::TestParamInfo<OrderCase>& info) { return std::string(info.param.name); });

TEST_F(DataPath, OversizedMemoryCommandsAreRefusedBeforeSending)
{
    start_with_chip();
    ops().SetEndianMode(HCI_LITTLE_ENDIAN);
    Bytes data = pattern(HCI_MEM_WRITE_MAX + 1);
    Bytes out(HCI_MEM_READ_MAX + 1);
    EXPECT_EQ(ops().WriteMem(&ext(), 0x20000000, data.data(), static_cast<USHORT>(data.size()), 0),
              -1);
    EXPECT_EQ(ops().WriteMem(&ext(), 0x20000000, nullptr, 4, 0), -1);
    EXPECT_EQ(ops().ReadMem(&ext(), 0x20000000, HCI_MEM_READ_MAX + 1, out.data(), 0), -1);
    run_for(20 * kMillisecond);
    EXPECT_TRUE(chip_received(HCI_PID_MEM_WRITE).empty());
    EXPECT_TRUE(chip_received(HCI_PID_MEM_READ).empty());
}

TEST_F(DataPath, ReadReturnsTheChipsBytes)
{
    start_with_chip();
    ops().SetEndianMode(HCI_LITTLE_ENDIAN);
    Bytes data = pattern(300, 7);
    chip().poke(0x20004000, data);
    Bytes out(data.size());
    ASSERT_EQ(ops().ReadMem(&ext(), 0x20004000, static_cast<USHORT>(out.size()), out.data(), 0), 0);
    EXPECT_EQ(out, data);
}

TEST_F(DataPath, ControlByteIsSetBehindItsGuard)
{
    start_with_chip();
    ops().SetEndianMode(HCI_LITTLE_ENDIAN);
    EXPECT_EQ(ops().SetCtrlByte(&ext(), 70), 0);
    EXPECT_EQ(chip().peek(HCI_CHIP_GUARD_REGISTER, 1), Bytes{HCI_CHIP_GUARD_VALUE});
    EXPECT_EQ(chip().peek(HCI_CHIP_CTRL_BYTE, 1), Bytes{70});
}

TEST_F(DataPath, WriteThatDoesNotStickFailsVerification)
{
    start_with_chip();
    ops().SetEndianMode(HCI_LITTLE_ENDIAN);
    chip().set_read_only(HCI_CHIP_GUARD_REGISTER, 1);
    EXPECT_EQ(ops().WriteByteVerify(&ext(), HCI_CHIP_GUARD_REGISTER, 10), -1);
    EXPECT_EQ(ops().SetCtrlByte(&ext(), 70), -1);
    EXPECT_EQ(chip().peek(HCI_CHIP_CTRL_BYTE, 1), Bytes{0});
}

TEST_F(DataPath, UnansweredReadYieldsZero)
{
    start_with_chip();
    ops().SetEndianMode(HCI_LITTLE_ENDIAN);
    chip().poke(HCI_CHIP_CTRL_BYTE, Bytes{9});
    chip().inject(sim::chip::Fault::no_ack(5, HCI_PID_MEM_READ));
    EXPECT_EQ(ops().ReadCtrlByte(&ext()), 0);
}

} // namespace
} // namespace mvgps::test
