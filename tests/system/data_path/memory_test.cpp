// Chip memory through the memory commands: the access width each write announces, the byte
// order of addresses, the control byte behind its guard, and the limits of both commands.
#include "data_path_fixture.h"

#include <numeric>

namespace mvgps::test
{
namespace
{

Bytes pattern(std::size_t n)
{
    Bytes b(n);
    std::iota(b.begin(), b.end(), 1);
    return b;
}

// 1, 2 and 4 bytes have sids of their own; other lengths are word transfers (4) when
// address and length are word aligned, else byte transfers (0).
TEST_F(DataPath, MemoryWriteAnnouncesItsWidthAndLands)
{
    struct {
        std::uint32_t address;
        std::size_t length;
        std::uint8_t sid;
    } const cases[] = {{0x20001000, 1, 1}, {0x20001000, 2, 2},
                       {0x20001000, 4, 3}, {0x20001001, 4, 3},
                       {0x20001000, 8, 4}, {0x20001000, 3, 0},
                       {0x20001002, 8, 0}, {0x20001000, HCI_MEM_WRITE_MAX, 4}};
    start_with_chip();
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.address << "+" << std::dec << c.length);
        Bytes data = pattern(c.length);
        ASSERT_EQ(ops().WriteMem(&ext(), c.address, data.data(), static_cast<USHORT>(c.length), 0),
                  0);
        Frame sent = chip_received(HCI_PID_MEM_WRITE).back();
        EXPECT_EQ(sent.sid, c.sid);
        EXPECT_EQ(Bytes(sent.payload.begin(), sent.payload.begin() + 4), le32(c.address));
        EXPECT_EQ(chip().peek(c.address, c.length), data);
    }
}

// A big-endian chip is served by a driver switched to that mode. The control byte is
// written only after the guard register took its value.
TEST_F(DataPath, BigEndianAddressesAndTheControlByte)
{
    start_with_chip(false, sim::chip::ByteOrder::Big);
    ops().SetEndianMode(0);
    ASSERT_EQ(ops().SetCtrlByte(&ext(), 0x5A), 0);
    EXPECT_EQ(ops().ReadCtrlByte(&ext()), 0x5A);
    EXPECT_EQ(chip().peek(HCI_CHIP_GUARD_REGISTER, 1), Bytes{HCI_CHIP_GUARD_VALUE});
    const Bytes address = {0xB9, 0x00, 0x22, 0x14};
    for (std::uint8_t pid : {HCI_PID_MEM_WRITE, HCI_PID_MEM_READ}) {
        Frame last = chip_received(pid).back();
        EXPECT_EQ(Bytes(last.payload.begin(), last.payload.begin() + 4), address);
    }
}

// Commands that cannot fit are refused before anything is sent; a control byte whose guard
// does not stick is left alone.
TEST_F(DataPath, MemoryCommandsFailWithoutEffect)
{
    start_with_chip();
    Bytes data = pattern(HCI_MEM_WRITE_MAX + 1);
    Bytes out(HCI_MEM_READ_MAX + 1);
    EXPECT_EQ(ops().WriteMem(&ext(), 0x20000000, data.data(), static_cast<USHORT>(data.size()), 0),
              -1);
    EXPECT_EQ(ops().WriteMem(&ext(), 0x20000000, nullptr, 4, 0), -1);
    EXPECT_EQ(ops().ReadMem(&ext(), 0x20000000, HCI_MEM_READ_MAX + 1, out.data(), 0), -1);
    run_for(20 * kMillisecond);
    EXPECT_TRUE(chip_received(HCI_PID_MEM_WRITE).empty());
    EXPECT_TRUE(chip_received(HCI_PID_MEM_READ).empty());

    // A guard register stuck at another value than the one written.
    chip().poke(HCI_CHIP_GUARD_REGISTER, Bytes{0});
    chip().set_read_only(HCI_CHIP_GUARD_REGISTER, 1);
    const Bytes before = chip().peek(HCI_CHIP_CTRL_BYTE, 1);
    EXPECT_EQ(ops().SetCtrlByte(&ext(), 70), -1);
    EXPECT_EQ(chip().peek(HCI_CHIP_CTRL_BYTE, 1), before);
}

} // namespace
} // namespace mvgps::test
