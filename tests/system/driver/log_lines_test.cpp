// The debug log as an operator reads it. Each scenario runs once with every category on, and
// every line it prints must carry the name of one of the driver's routines, never a helper's.
// It runs again once per category its table names, with only that bit in the mask: the lines
// an operator searches for (failures, state changes, thread ends) must appear in that run, in
// order, under their routine, and the lines of the other categories must not.
#include <set>

#include "control/control.h"
#include "driver_fixture.h"
#include "host/wdf/faults.h"
#include "read/read.h"
#include "tests/support/driver_log.h"

namespace mvgps::test
{
namespace
{

struct Expected {
    ULONG category;
    const char* function;
    const char* text;
};

class LogLines;

struct Scenario {
    const char* name;
    void (*run)(LogLines&);
    std::vector<Expected> lines; // in the order they are printed within one category
};

void PrintTo(const Scenario& s, std::ostream* os)
{
    *os << s.name;
}

class LogLines : public DriverTest, public testing::WithParamInterface<std::pair<Scenario, ULONG>>
{
  public:
    using DriverTest::chip;
    using DriverTest::quiet_chip;
    using DriverTest::remove;
    using DriverTest::run_for;

    NTSTATUS call(ULONG code, const Bytes& input = {}, std::size_t out = 0)
    {
        Bytes output(out);
        return client->ioctl(code, input, output);
    }
    NTSTATUS option_command(std::uint8_t sid = 5) { return call(ack, command(0x22, sid, {1}), 64); }
    std::shared_ptr<pnp::PendingIo> async(ULONG code, const Bytes& input, std::size_t out)
    {
        return client->ioctl_async(code, input, out);
    }
    static void fail_write(std::uint64_t n)
    {
        wdf::faults::add(wdf::faults::fail_nth_send(n, wdf::faults::Op::Write));
    }
    // Until the driver's own resends of an acknowledged command are over.
    void settle()
    {
        wait_until([this] { return peek(ext().WaitAck_flag) == 0; }, 6 * kSecond);
    }

    static constexpr ULONG ack = IOCTL_VC_GPS_SENDCMD_ACK;
    std::unique_ptr<pnp::ClientHandle> client;
};

void unanswered_command(LogLines& t)
{
    t.chip().inject(Fault::no_ack(5));
    EXPECT_EQ(t.option_command(), STATUS_SUCCESS);
}

void rejected_command(LogLines& t)
{
    t.chip().inject(Fault::reject(1, 1));
    EXPECT_EQ(t.option_command(), STATUS_SUCCESS);
    t.settle();
}

void failed_write(LogLines& t)
{
    LogLines::fail_write(1);
    EXPECT_EQ(t.option_command(), STATUS_SUCCESS);
}

// An answer whose CRC is wrong, then one whose tail is: each is dropped on the way in, and
// the command is answered by its next write.
void broken_answers(LogLines& t)
{
    t.chip().inject(Fault::corrupt_crc(1, sim::chip::Output::Answers));
    EXPECT_EQ(t.option_command(5), STATUS_SUCCESS);
    t.settle();
    t.chip().inject(Fault::corrupt_tail(1, sim::chip::Output::Answers));
    EXPECT_EQ(t.option_command(6), STATUS_SUCCESS);
    t.settle();
}

// NMEA off, then a read one byte too small for the 14-byte answer behind its header.
void read_too_small(LogLines& t)
{
    t.quiet_chip(*t.client);
    kernel::clear_debug_output();
    auto pending = t.async(IOCTL_VC_GPS_START_READ, {}, READ_COMPLETION_HEADER_SIZE + 13);
    EXPECT_EQ(t.option_command(), STATUS_SUCCESS);
    EXPECT_TRUE(pending->wait(sched::current().now() + 100 * kMillisecond));
    t.settle();
}

// The chip answers twice: the first copy completes the raw command, the second finds none.
void raw_command_answered_twice(LogLines& t)
{
    t.chip().inject(Fault::duplicate_ack(1));
    auto cmd = t.async(IOCTL_VC_SET_LOG_GPS_SENDCMD, command(0x22, 5, {1}), 64);
    EXPECT_TRUE(cmd->wait(sched::current().now() + 100 * kMillisecond));
    t.run_for(50 * kMillisecond);
    EXPECT_EQ(cmd->status(), STATUS_SUCCESS);
}

// Removal cancels the read in flight and ends both threads.
void thread_ends(LogLines& t)
{
    t.run_for(100 * kMillisecond);
    t.client.reset();
    t.remove();
}

// A whole start-up sequence on wake-up, then one failing at each of its four steps in turn.
void start_up(LogLines& t)
{
    EXPECT_EQ(t.call(IOCTL_VC_GPS_WAKEUP), STATUS_SUCCESS);
    for (std::uint64_t step = 1; step <= 4; step++) {
        LogLines::fail_write(step);
        EXPECT_EQ(t.call(IOCTL_VC_GPS_WAKEUP), STATUS_SUCCESS);
        wdf::faults::clear();
    }
}

// A cold start whose memory clear the chip never answers: the start itself went out.
void cold_start_unanswered(LogLines& t)
{
    t.chip().inject(Fault::no_ack(10));
    EXPECT_EQ(t.call(IOCTL_VC_GPS_STARTUP), STATUS_SUCCESS);
}

// NMEA off and the assistance data refused by the UART, and a geofence status the chip's
// table never gives.
void receiver_commands(LogLines& t)
{
    LogLines::fail_write(1);
    EXPECT_EQ(t.call(IOCTL_VC_GPS_DISABLE_NMEA), STATUS_UNSUCCESSFUL);
    GPS_AGPS_RECORD record{};
    record.Valid = 1;
    LogLines::fail_write(1);
    EXPECT_EQ(t.call(IOCTL_VC_GPS_AGPS_DATA, sim::testkit::bytes_of(record)), STATUS_SUCCESS);
    t.chip().set_geofence_status(9);
    GPS_GEOFENCE_CMD_RECORD query{0x1234, GPS_GEOFENCE_PID, 4, 4, {0x34, 0x12, 0, 0}};
    EXPECT_EQ(t.call(IOCTL_VC_GPS_GEOFENCE_CMD, sim::testkit::bytes_of(query)),
              STATUS_UNSUCCESSFUL);
}

// A switch to 115200 that the chip is told of, then one the port refuses.
void baud_switch(LogLines& t)
{
    for (bool refused : {false, true}) {
        if (refused) {
            wdf::faults::add(wdf::faults::fail_control(IOCTL_SERIAL_SET_BAUD_RATE));
        }
        auto cmd = t.async(IOCTL_VC_SET_LOG_GPS_SENDCMD,
                           command(GPS_COMMAND_PID_BAUD_RATE, 0, le32(115200)), 64);
        t.run_for(50 * kMillisecond);
        cmd->cancel();
        EXPECT_TRUE(cmd->wait(sched::current().now() + kSecond));
    }
}

const Scenario kScenarios[] = {
    {"unanswered_command",
     unanswered_command,
     {{DBG_ERROR, "send_hci_tx_internal_core", "Begin: send_hci_tx_internal_core!"},
      {DBG_OS, "send_hci_tx_internal_core", "    waiting ack\n"},
      {DBG_ERROR, "send_hci_tx_internal_core", "retcode is: 3"},
      {DBG_ERROR, "send_hci_tx_internal_core", "0st timed out, pid 22, sid 05, try again"},
      {DBG_OS, "send_hci_tx_internal_core", "time [1] tx hci cmd, pid 0x22 sid 0x05"},
      {DBG_OS, "send_hci_tx_internal_core", "time [4] tx hci cmd, pid 0x22 sid 0x05"},
      {DBG_ERROR, "send_hci_tx_internal_core", "4st timed out, pid 22, sid 05, try again"},
      {DBG_OS, "send_hci_tx_internal_core", "------ funcx: -x retcode 3------\n"},
      {DBG_ERROR, "send_hci_tx_internal_core", "End: send_hci_tx_internal_core!"},
      {DBG_OS, "xfer_hci_pkt_core", "ret =3 "}}},
    {"rejected_command",
     rejected_command,
     {{DBG_OS, "send_hci_tx_internal_core", "    RECV ACK, pid, sid: [0x22, 0x05], Len [14]\n"},
      {DBG_ERROR, "send_hci_tx_internal_core",
       "ack len 14, err_status 00000001, re-send (pid 22, sid 05)"},
      {DBG_OS, "send_hci_tx_internal_core", "time [1] tx hci cmd, pid 0x22 sid 0x05"},
      {DBG_ERROR, "send_hci_tx_internal_core",
       "    send pkt successfully, err_status [00000000]\n"},
      {DBG_OS, "xfer_hci_pkt_core", "ret =0 "}}},
    {"failed_write",
     failed_write,
     {{DBG_TRACE, "FdoWriteToDeviceSyncWithTimeOut", "+FdoWriteToDeviceSync"},
      {DBG_TRACE, "FdoWriteToDeviceSyncWithTimeOut",
       "-FdoWriteToDeviceSync: Status(0xc0000001| )BytesWritten(0)"},
      {DBG_ERROR, "send_hci_tx_internal_core", "funcx: write err,  io_ret(c0000001)\n"},
      {DBG_OS, "send_hci_tx_internal_core", "------ funcx: -x retcode -1------\n"},
      {DBG_OS, "xfer_hci_pkt_core", "ret =-1 "}}},
    {"broken_answers",
     broken_answers,
     {{DBG_ERROR, "parse_one_packet", "pid 22, sid 05, CRC error"},
      {DBG_ERROR, "send_hci_tx_internal_core", "0st timed out, pid 22, sid 05, try again"},
      {DBG_ERROR, "process_buff", "PKT_NO_TAIL"},
      {DBG_ERROR, "send_hci_tx_internal_core", "0st timed out, pid 22, sid 06, try again"}}},
    {"read_too_small",
     read_too_small,
     {{DBG_ERROR, "UART_ProcessReadQueue",
       "Error: Buffer too small!!! BufferSize(29)<BytesToReturn(30)"},
      {DBG_COMPLETE, "UART_ProcessReadQueue",
       " [1] HciPacketEvent completing Status(0xc0000023), 0 BytesToReturn"},
      {DBG_QUEUE, "UART_ProcessReadQueue", "STATUS is not SUCCESS"},
      {DBG_READQ, "UART_ProcessReadQueue", "-UART_ProcessReadQueue: Status(0xc0000023)"}}},
    {"raw_command_answered_twice",
     raw_command_answered_twice,
     {{DBG_OS, "send_hci_tx_internal_core", "asynchronious writing, pid 22, sid 05"},
      {DBG_COMPLETE, "local_process_pkt", "ACK:ff 0!"},
      {DBG_ERROR, "local_process_pkt", "success to get output buffer"},
      {DBG_ERROR, "local_process_pkt", "BufferSize: 64"},
      {DBG_ERROR, "local_process_pkt", "Bufferplen: 14"},
      {DBG_ERROR, "local_process_pkt", "FdoExtension CMD_Request is NULL"}}},
    {"thread_ends",
     thread_ends,
     {{DBG_ERROR, "HalReadFromDeviceSync", "I/O Canceled!!"},
      {DBG_ERROR, "StartFunc_GPS", "Read COM: cancelled break;"},
      {DBG_ERROR, "StartFunc_GPS", "OsSetSignal Threadread_FinishSignal"},
      {DBG_ERROR, "UART_ProcessReadQueue_GPS", "OsSetSignal Threadprocess_FinishSignal"},
      {DBG_ERROR, "UART_FreeReadResources", "+UART_DestroyLocalIoQueues"},
      {DBG_ERROR, "UART_FreeReadResources", "---FdoExtension"}}},
    {"start_up",
     start_up,
     {{DBG_ERROR, "H4DownloadPatchCode", "Failed to disable NMEA"},
      {DBG_ERROR, "H4DownloadPatchCode", "FAIL to hci_write_mem_status1: -1"},
      {DBG_ERROR, "H4DownloadPatchCode", "Failed to set RF register 0x31 as 0x2A856"},
      {DBG_ERROR, "H4DownloadPatchCode", "Failed to enable NMEA"}}},
    {"cold_start_unanswered",
     cold_start_unanswered,
     {{DBG_COMPLETE, "start_gps", "Begin: start_gps!"},
      {DBG_ERROR, "hci_write_mem_core", "Begin: hci_write_mem_core!"},
      {DBG_ERROR, "hci_write_mem_core", "Failed to write mem 0x8010a731, len 1"}}},
    {"receiver_commands",
     receiver_commands,
     {{DBG_ERROR, "set_nmea_switch", "disable"},
      {DBG_ERROR, "hci_command_agps_tx", "Failed to xfer type0"},
      {DBG_ERROR, "hci_command_geofence", "a5 "},
      {DBG_ERROR, "geofence_status", "unknown status"}}},
    {"baud_switch",
     baud_switch,
     {{DBG_OS, "change_baudrate", "COM: Set BaudRate(115200)"},
      {DBG_BAUD, "change_baudrate", "COM: BaudRate(115200)"},
      {DBG_ERROR, "change_baudrate", "reset_circ"},
      {DBG_ERROR, "change_baudrate", "Failed to set baudrate"}}},
};

constexpr ULONG kEveryCategory = 0xFFFFFFFFu;

std::string describe(const LogLine& line)
{
    return line.function + ": \"" + line.text + "\"";
}

TEST_P(LogLines, CarryTheirRoutineAndCategory)
{
    if (!simulated()) {
        GTEST_SKIP() << "in real time the two halves of lines from two threads may interleave";
    }
    const auto& [scenario, mask] = GetParam();
    Node node;
    node.log_mask = mask;
    start_running(node);
    client = open_parent();
    kernel::clear_debug_output();
    scenario.run(*this);
    run_for(20 * kMillisecond); // a pass that completed a request prints its end after it
    client.reset();
    const std::vector<LogLine> lines = parse_log(log());
    ASSERT_FALSE(lines.empty());

    if (mask == kEveryCategory) {
        for (const LogLine& line : lines) {
            EXPECT_TRUE(driver_routines().count(line.function)) << describe(line);
        }
        return;
    }
    auto printed = [&](const Expected& e, std::size_t from) {
        for (std::size_t i = from; i < lines.size(); i++) {
            if (lines[i].function == e.function && lines[i].text == e.text) {
                return i;
            }
        }
        return lines.size();
    };
    std::size_t next = 0;
    for (const Expected& e : scenario.lines) {
        LogLine line{e.function, e.text};
        if (e.category != mask) {
            EXPECT_EQ(printed(e, 0), lines.size())
                << "printed in another category: " << describe(line);
            continue;
        }
        std::size_t at = printed(e, next);
        EXPECT_LT(at, lines.size()) << "missing, or out of order: " << describe(line);
        next = at < lines.size() ? at + 1 : next;
    }
}

std::vector<std::pair<Scenario, ULONG>> runs()
{
    std::vector<std::pair<Scenario, ULONG>> all;
    for (const Scenario& s : kScenarios) {
        all.emplace_back(s, kEveryCategory);
        std::set<ULONG> categories;
        for (const Expected& e : s.lines) {
            categories.insert(e.category);
        }
        for (ULONG c : categories) {
            all.emplace_back(s, c);
        }
    }
    return all;
}

std::string run_name(const testing::TestParamInfo<std::pair<Scenario, ULONG>>& info)
{
    char mask[16];
    std::snprintf(mask, sizeof mask, "%08x", info.param.second);
    return std::string(info.param.first.name) + "_" +
           (info.param.second == kEveryCategory ? std::string("all") : std::string(mask));
}

INSTANTIATE_TEST_SUITE_P(Driver, LogLines, testing::ValuesIn(runs()), run_name);

} // namespace
} // namespace mvgps::test
