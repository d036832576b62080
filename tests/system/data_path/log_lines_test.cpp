// The debug log as an operator reads it. Each scenario of the data path runs once with every
// category on, and every line it prints must carry the name of one of the driver's routines,
// never a helper's. It runs again once per category its table names, with only that bit in
// the mask: the lines an operator searches for (failures, state changes, thread ends) must
// appear in that run, in order, under their routine, and the lines of the other categories
// must not.
#include <dlfcn.h>

#include <set>

#include "data_path_fixture.h"
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
    friend void PrintTo(const Scenario& s, std::ostream* os) { *os << s.name; }
};

class LogLines : public DataPath, public testing::WithParamInterface<std::pair<Scenario, ULONG>>
{
  public:
    using DataPath::chip;
    using DataPath::ext;
    using DataPath::now;
    using DataPath::ops;
    using DataPath::read;
    using DataPath::remove;
    using DataPath::run_for;
    using DataPath::send_cmd;
    using DataPath::start_with_chip;
    using DataPath::xfer;

    void start(bool talking = false)
    {
        start_with_chip(talking);
        set_mask(GetParam().second);
    }

  private:
    // The mask of the loaded image, as a kernel debugger patches it.
    static void set_mask(ULONG mask)
    {
        void* image = dlopen(DATA_PATH_DRIVER_PATH, RTLD_NOW | RTLD_NOLOAD);
        ASSERT_NE(image, nullptr);
        auto* variable = static_cast<ULONG*>(dlsym(image, "DebugLogMask"));
        dlclose(image);
        ASSERT_NE(variable, nullptr);
        *variable = mask;
    }
};

void unanswered_command(LogLines& t)
{
    t.start();
    t.chip().inject(Fault::no_ack(5));
    EXPECT_EQ(t.xfer(0x22, 5), 3);
}

void rejected_command(LogLines& t)
{
    t.start();
    t.chip().inject(Fault::reject(1, 1));
    EXPECT_EQ(t.xfer(0x22, 5), 0);
}

void failed_write(LogLines& t)
{
    t.start();
    wdf::faults::add(wdf::faults::fail_nth_send(1, wdf::faults::Op::Write));
    EXPECT_EQ(t.xfer(0x22, 5), -1);
}

// An answer whose CRC is wrong, then one whose tail is: each is dropped on the way in, and
// the command is answered by its third write.
void broken_answers(LogLines& t)
{
    t.start();
    t.chip().inject(Fault::corrupt_crc(1, sim::chip::Output::Answers));
    EXPECT_EQ(t.xfer(0x22, 5), 0);
    t.chip().inject(Fault::corrupt_tail(1, sim::chip::Output::Answers));
    EXPECT_EQ(t.xfer(0x22, 6), 0);
}

// A read one byte too small for the 14-byte answer behind its header, then an answer that
// finds no read at all.
void reads_that_cannot_take_a_frame(LogLines& t)
{
    t.start();
    auto pending = t.read(READ_COMPLETION_HEADER_SIZE + 13);
    EXPECT_EQ(t.xfer(0x22, 5), 0);
    EXPECT_TRUE(pending->wait(t.now() + 100 * kMillisecond));
    EXPECT_EQ(t.xfer(0x22, 5), 0);
    t.run_for(50 * kMillisecond);
}

// The chip answers twice: the first copy completes the raw command, the second finds none.
void raw_command_answered_twice(LogLines& t)
{
    t.start();
    t.chip().inject(Fault::duplicate_ack(1));
    auto cmd = t.send_cmd(0x22, 5, 64);
    EXPECT_TRUE(cmd->wait(t.now() + 100 * kMillisecond));
    t.run_for(50 * kMillisecond);
    EXPECT_EQ(cmd->status(), STATUS_SUCCESS);
}

void serial_refusals(LogLines& t)
{
    t.start();
    SERIAL_BAUD_RATE rate = {0};
    EXPECT_FALSE(
        t.ops().SerialSend(t.ext().UartIoTarget, IOCTL_SERIAL_SET_BAUD_RATE, sizeof(rate), &rate));
    EXPECT_FALSE(t.ops().SerialRead(t.ext().UartIoTarget, IOCTL_SERIAL_GET_BAUD_RATE, 2, &rate));
}

// The port refuses the read thread's timeouts: the thread reads on regardless.
void timeouts_refused(LogLines& t)
{
    wdf::faults::add(wdf::faults::fail_control(IOCTL_SERIAL_SET_TIMEOUTS));
    t.start();
    t.run_for(20 * kMillisecond);
}

// Memory commands the chip never answers, and a write of nothing.
void memory_commands_unanswered(LogLines& t)
{
    t.start();
    t.chip().inject(Fault::no_ack(10));
    UCHAR data[4] = {1, 2, 3, 4};
    EXPECT_EQ(t.ops().WriteMem(&t.ext(), 0x20000000, data, sizeof(data), 0), 3);
    EXPECT_EQ(t.ops().ReadMem(&t.ext(), 0x20000000, sizeof(data), data, 0), 3);
    EXPECT_EQ(t.ops().WriteMem(&t.ext(), 0x20000000, nullptr, sizeof(data), 0), -1);
}

// Removal cancels the read in flight and ends both threads.
void thread_ends(LogLines& t)
{
    t.start(true);
    t.run_for(100 * kMillisecond);
    t.remove();
}

// A whole start-up sequence, then one failing at each of its four steps in turn.
void start_up(LogLines& t)
{
    t.start();
    EXPECT_TRUE(t.ops().DownloadPatchCode(&t.ext()));
    for (std::uint64_t step = 1; step <= 4; step++) {
        wdf::faults::add(wdf::faults::fail_nth_send(step, wdf::faults::Op::Write));
        EXPECT_FALSE(t.ops().DownloadPatchCode(&t.ext()));
        wdf::faults::clear();
    }
}

void starts(LogLines& t)
{
    t.start();
    t.ext().Initialized_flag = 0;
    EXPECT_EQ(t.ops().StartGps(&t.ext(), GPS_START_COLD), 0);
    wdf::faults::add(wdf::faults::fail_nth_send(1, wdf::faults::Op::Write));
    EXPECT_EQ(t.ops().StartGps(&t.ext(), GPS_START_WARM), -1);
}

// NMEA off and the assistance data refused by the UART, and a geofence status the chip's
// table never gives.
void receiver_commands(LogLines& t)
{
    t.start();
    wdf::faults::add(wdf::faults::fail_nth_send(1, wdf::faults::Op::Write));
    EXPECT_EQ(t.ops().SetNmeaOutput(0, &t.ext()), -1);
    GPS_AGPS_RECORD record{};
    record.Valid = 1;
    wdf::faults::add(wdf::faults::fail_nth_send(1, wdf::faults::Op::Write));
    EXPECT_EQ(t.ops().AgpsTx(&t.ext(), &record), -1);
    t.chip().set_geofence_status(9);
    GEOFENCE_CMD_PAYLOAD query = {{0x34, 0x12, 0, 0}};
    EXPECT_EQ(t.ops().GeofenceCmd(&t.ext(), 0x1234, 0x30, 4, &query, sizeof(query)), -149);
}

// A switch to 115200 that the chip was told of, then a rate the port refuses.
void baud_switch(LogLines& t)
{
    t.start();
    EXPECT_EQ(t.xfer(HCI_PID_BAUD_RATE, 0, {0x00, 0xC2, 0x01, 0x00}), 0);
    EXPECT_EQ(t.ops().ChangeBaudrate(&t.ext(), 115200, 0), 0);
    t.run_for(50 * kMillisecond);
    EXPECT_EQ(t.ops().ChangeBaudrate(&t.ext(), 12345, 0), -1);
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
    {"reads_that_cannot_take_a_frame",
     reads_that_cannot_take_a_frame,
     {{DBG_ERROR, "UART_ProcessReadQueue",
       "Error: Buffer too small!!! BufferSize(29)<BytesToReturn(30)"},
      {DBG_COMPLETE, "UART_ProcessReadQueue",
       " [1] HciPacketEvent completing Status(0xc0000023), 0 BytesToReturn"},
      {DBG_QUEUE, "UART_ProcessReadQueue", "STATUS is not SUCCESS"},
      {DBG_READQ, "UART_ProcessReadQueue", "-UART_ProcessReadQueue: Status(0xc0000023)"},
      {DBG_QUEUE, "UART_ProcessReadQueue", "STATUS_NO_MORE_ENTRIES!"},
      {DBG_READQ, "UART_ProcessReadQueue", "-UART_ProcessReadQueue: Status(0x103)"}}},
    {"raw_command_answered_twice",
     raw_command_answered_twice,
     {{DBG_OS, "send_hci_tx_internal_core", "asynchronious writing, pid 22, sid 05"},
      {DBG_COMPLETE, "local_process_pkt", "ACK:ff 0!"},
      {DBG_ERROR, "local_process_pkt", "success to get output buffer"},
      {DBG_ERROR, "local_process_pkt", "BufferSize: 64"},
      {DBG_ERROR, "local_process_pkt", "Bufferplen: 14"},
      {DBG_ERROR, "local_process_pkt", "FdoExtension CMD_Request is NULL"}}},
    {"serial_refusals",
     serial_refusals,
     {{DBG_TRACE, "FdoWriteToDeviceSyncWithTimeOut",
       "-FdoWriteToDeviceSync: Status(0xc000000d|InvalidParam)BytesWritten(0)"},
      {DBG_OS, "SerialSendIoSync", "SerialSendIoSync fail with 0xc000000d\n"},
      {DBG_OS, "SerialReadFromSync", "SerialSendIoSync fail with 0xc0000023\n"}}},
    {"timeouts_refused",
     timeouts_refused,
     {{DBG_ERROR, "HalWriteToDeviceSync", "+++HalWriteToDeviceSync"},
      {DBG_ERROR, "HalWriteToDeviceSync", "---HalWriteToDeviceSync"},
      {DBG_ERROR, "StartFunc_GPS", "Error!!BytesWritten(0)Status(c0000001)"}}},
    {"memory_commands_unanswered",
     memory_commands_unanswered,
     {{DBG_ERROR, "hci_write_mem_core", "Begin: hci_write_mem_core!"},
      {DBG_ERROR, "hci_write_mem_core", "Failed to write mem 0x20000000, len 4"},
      {DBG_ERROR, "hci_read_mem_core", "hci read failed, address 0x20000000, length 4"},
      {DBG_ERROR, "hci_write_mem_core", "funcx: buf is null"}}},
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
    {"starts",
     starts,
     {{DBG_COMPLETE, "start_gps", "Begin: start_gps!"},
      {DBG_QUEUE, "start_gps", "funcx: Failed to GPS_WARM_START"}}},
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
      {DBG_OS, "change_baudrate", "COM: Set BaudRate(12345)"},
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
    scenario.run(*this);
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

INSTANTIATE_TEST_SUITE_P(DataPath, LogLines, testing::ValuesIn(runs()), run_name);

} // namespace
} // namespace mvgps::test
