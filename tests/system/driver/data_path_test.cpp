// The data path under the control codes: commands with acknowledgement and resend, the
// answers a client reads, chip memory access, the acknowledgement buffer's bound, and the
// order the threads stop in at removal.
#include <numeric>
#include <optional>

#include "control/control.h"
#include "driver_fixture.h"
#include "link/device/command.h"
#include "read/read.h"

namespace mvgps::test
{
namespace
{

// The receiver's option switch: a command the chip carries out and answers with 14 bytes.
constexpr std::uint8_t kOptionPid = 0x22, kOptionSid = 5;
constexpr std::size_t kAnswerSize = 14;

class DataPath : public ClientTest
{
  protected:
    std::shared_ptr<pnp::PendingIo> send(ULONG code, std::size_t out = 64)
    {
        return client_->ioctl_async(code, command(kOptionPid, kOptionSid, {1}), out);
    }
    std::shared_ptr<pnp::PendingIo> read(std::size_t out = 256)
    {
        return client_->ioctl_async(IOCTL_VC_GPS_START_READ, {}, out);
    }
};

struct AckCase {
    const char* name;
    std::optional<Fault> fault;
    std::size_t writes;
    std::optional<std::uint8_t> err_status; // of the answer the client gets
    std::int64_t min_ms;                    // until the client's request returns
    std::int64_t max_ms;
};

void PrintTo(const AckCase& c, std::ostream* os)
{
    *os << c.name;
}

// The client's request returns once the driver is done with the command, with the first
// answer. An accepted answer reaches the driver when the read that carries it ends, 10 ms
// after the line falls quiet. A rejection leaves the signal set, so later attempts read the
// newest answer at once: after one rejection the accepting answer to the second write is
// there when the third write's wait starts. Each unanswered write waits 1 s; a command never
// answered comes back empty but successful.
const AckCase kAckCases[] = {
    {"accepted", std::nullopt, 1, 0, 10, 15},
    {"rejected_once", Fault::reject(1, 1), 3, 1, 100, 150},
    {"always_rejected", Fault::reject(5, 7), 5, 7, 250, 300},
    {"never_answered", Fault::no_ack(5), 5, std::nullopt, 5250, 5300},
};

class Commands : public DataPath, public testing::WithParamInterface<AckCase>
{
};

TEST_P(Commands, WritesAndAnswerFollowTheChip)
{
    const AckCase& c = GetParam();
    if (c.fault) {
        chip().inject(*c.fault);
    }
    const sched::Nanos start = now();
    auto pending = send(IOCTL_VC_GPS_SENDCMD_ACK);
    ASSERT_TRUE(pending->wait(start + 10 * kSecond));
    const sched::Nanos took = now() - start;
    EXPECT_EQ(pending->status(), STATUS_SUCCESS);
    EXPECT_EQ(pending->information(), c.err_status ? kAnswerSize : 0u);
    if (c.err_status) {
        EXPECT_EQ(pending->output()[HCI_ACK_STATUS_OFFSET], *c.err_status);
    }
    EXPECT_GE(took, c.min_ms * kMillisecond);
    if (simulated()) {
        EXPECT_LE(took, c.max_ms * kMillisecond);
    }
    ASSERT_TRUE(wait_until([&] { return peek(ext().WaitAck_flag) == 0; }, 2 * kSecond));
    run_for(50 * kMillisecond);
    EXPECT_EQ(chip_heard(kOptionPid, kOptionSid), c.writes);
    EXPECT_EQ(peek(ext().CMD_Request), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Driver, Commands, testing::ValuesIn(kAckCases),
                         [](const auto& info) { return std::string(info.param.name); });

// An answer goes to the raw command only when it fits whole, and to a pending read too; a
// read must hold the header and the frame. Nothing is left for a later read.
TEST_F(DataPath, AnswersReachCommandAndReadWhenTheyFit)
{
    quiet_chip(*client_);
    const std::size_t record = READ_COMPLETION_HEADER_SIZE + kAnswerSize;
    for (std::size_t fit : {std::size_t{0}, std::size_t{1}}) {
        SCOPED_TRACE(fit);
        auto reader = read(record - fit);
        auto cmd = send(IOCTL_VC_SET_LOG_GPS_SENDCMD, kAnswerSize - fit);
        ASSERT_TRUE(cmd->wait(now() + 100 * kMillisecond));
        ASSERT_TRUE(reader->wait(now() + 50 * kMillisecond));
        const NTSTATUS expected = fit == 0 ? STATUS_SUCCESS : STATUS_BUFFER_TOO_SMALL;
        EXPECT_EQ(cmd->status(), expected);
        EXPECT_EQ(reader->status(), expected);
        if (fit == 0) {
            Bytes answer(cmd->output().begin(), cmd->output().begin() + cmd->information());
            EXPECT_EQ(answer.size(), kAnswerSize);
            EXPECT_EQ(read_frame(*reader), answer);
        } else {
            EXPECT_EQ(cmd->information(), 0u);
            EXPECT_EQ(reader->information(), 0u);
        }
    }
    auto later = read();
    run_for(100 * kMillisecond);
    EXPECT_FALSE(later->done());
    // With no output buffer at all the command gets the framework's error and 0 bytes.
    auto blind = send(IOCTL_VC_SET_LOG_GPS_SENDCMD, 0);
    ASSERT_TRUE(blind->wait(now() + 100 * kMillisecond));
    EXPECT_FALSE(NT_SUCCESS(blind->status()));
    EXPECT_EQ(blind->information(), 0u);
}

// A frame queued while a pass runs may wait for the next frame's wake-up; nothing else stays.
TEST_F(DataPath, FramesWithNoReaderAreDropped)
{
    run_for(2500 * kMillisecond);
    EXPECT_GE(chip().stats().nmea_sent, 4u);
    EXPECT_LE(peek(ext().ReadDataCount), 1);
    EXPECT_TRUE(logged("STATUS_NO_MORE_ENTRIES!"));
}

// The copy of an acknowledgement is bounded by the size set-up gave AckBuffer: a smaller
// buffer keeps the start of the answer, where the sender finds err_status.
TEST_F(DataPath, AcknowledgementIsCutAtTheBufferSize)
{
    constexpr USHORT kSize = 12;
    RtlFillMemory(ext().AckBuffer, FDO_ACK_BUFFER_SIZE, 0xEE);
    ext().AckBufferSize = kSize;
    auto pending = send(IOCTL_VC_GPS_SENDCMD_ACK);
    ASSERT_TRUE(pending->wait(now() + kSecond));
    Bytes answer(pending->output().begin(), pending->output().begin() + pending->information());
    ASSERT_EQ(answer.size(), kAnswerSize);
    ASSERT_TRUE(wait_until([&] { return peek(ext().WaitAck_flag) == 0; }));
    EXPECT_EQ(ext().AckLength, kSize);
    std::fill(answer.begin() + kSize, answer.end(), 0xEE);
    EXPECT_EQ(Bytes(ext().AckBuffer, ext().AckBuffer + kAnswerSize), answer);
}

using WriteMem = decltype(hci_write_mem_core);
using ReadMem = decltype(hci_read_mem_core);
constexpr char kWriteMem[] = "_Z18hci_write_mem_coreP12FdoExtensionjPKhth";
constexpr char kReadMem[] = "_Z17hci_read_mem_coreP12FdoExtensionjtPhh";

Bytes pattern(std::size_t n)
{
    Bytes b(n);
    std::iota(b.begin(), b.end(), 1);
    return b;
}

// No control code writes memory of the client's choosing, so these call the image's routines.
// 1, 2 and 4 bytes have sids of their own; other lengths are word transfers (4) when address
// and length are word aligned, else byte transfers (0).
TEST_F(DataPath, MemoryWriteAnnouncesItsWidthAndLands)
{
    const struct {
        std::uint32_t address;
        std::size_t length;
        std::uint8_t sid;
    } cases[] = {{0x20001000, 1, 1}, {0x20001000, 2, 2},
                 {0x20001000, 4, 3}, {0x20001001, 4, 3},
                 {0x20001000, 8, 4}, {0x20001000, 3, 0},
                 {0x20001002, 8, 0}, {0x20001000, HCI_MEM_WRITE_MAX, 4}};
    WriteMem* write = image_symbol_as<WriteMem>(kWriteMem);
    ASSERT_NE(write, nullptr);
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.address << "+" << std::dec << c.length);
        Bytes data = pattern(c.length);
        ASSERT_EQ(write(&ext(), c.address, data.data(), static_cast<USHORT>(c.length), 0), 0);
        Frame sent = chip_received(HCI_PID_MEM_WRITE).back();
        EXPECT_EQ(sent.sid, c.sid);
        EXPECT_EQ(Bytes(sent.payload.begin(), sent.payload.begin() + 4), le32(c.address));
        EXPECT_EQ(chip().peek(c.address, c.length), data);
    }
}

// What cannot fit is refused unsent; a long read comes back whole over two UART reads.
TEST_F(DataPath, MemoryCommandLimits)
{
    WriteMem* write = image_symbol_as<WriteMem>(kWriteMem);
    ReadMem* read_mem = image_symbol_as<ReadMem>(kReadMem);
    ASSERT_TRUE(write != nullptr && read_mem != nullptr);
    const std::size_t writes = chip_received(HCI_PID_MEM_WRITE).size();
    const std::size_t reads = chip_received(HCI_PID_MEM_READ).size();
    Bytes data = pattern(HCI_MEM_WRITE_MAX + 1);
    Bytes out(HCI_MEM_READ_MAX + 1);
    EXPECT_EQ(write(&ext(), 0x20000000, data.data(), static_cast<USHORT>(data.size()), 0), -1);
    EXPECT_EQ(write(&ext(), 0x20000000, nullptr, 4, 0), -1);
    EXPECT_EQ(read_mem(&ext(), 0x20000000, HCI_MEM_READ_MAX + 1, out.data(), 0), -1);
    run_for(20 * kMillisecond);
    EXPECT_EQ(chip_received(HCI_PID_MEM_WRITE).size(), writes);
    EXPECT_EQ(chip_received(HCI_PID_MEM_READ).size(), reads);

    // An answer that fills no UART read alone, split by a quiet interval, is reassembled.
    constexpr USHORT kLength = 2000;
    chip().poke(0x20000000, Bytes(data.begin(), data.begin() + kLength));
    chip().inject(Fault::split_burst(1, 20 * kMillisecond, sim::chip::Output::Answers));
    ASSERT_EQ(read_mem(&ext(), 0x20000000, kLength, out.data(), 0), 0);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + kLength),
              Bytes(data.begin(), data.begin() + kLength));
}

// Removal stops the target, then the read thread, then the processing thread, with frames
// arriving throughout: none is handled once the processing thread was told to stop.
TEST_F(DataPath, StopOrderLeavesNoFrameBehind)
{
    run_for(1500 * kMillisecond);
    kernel::clear_debug_output();
    client_.reset();
    remove();
    const std::string text = log();
    const std::size_t read_end = text.find("Read COM: cancelled break;");
    const std::size_t proc_flag = text.find("Thread_flag is NULL");
    const std::size_t proc_end = text.find("OsSetSignal Threadprocess_FinishSignal");
    ASSERT_NE(proc_end, std::string::npos);
    EXPECT_LT(read_end, proc_flag);
    EXPECT_LT(proc_flag, proc_end);
    EXPECT_EQ(text.find("+++local_process_pkt", proc_flag), std::string::npos);
    EXPECT_EQ(text.find("+IsListEmpty\n"), std::string::npos);
}

} // namespace
} // namespace mvgps::test
