// GPS control against the simulated chip: the start-up sequence, cold and warm starts, NMEA
// output as a client sees it, the assistance walk and geofence answers. Failures come from
// the UART refusing the n-th write, so the packet that fails never reaches the chip.
#include "data_path_fixture.h"

#include <cstring>
#include <optional>
#include <sstream>
#include <utility>

namespace mvgps::test
{
namespace
{

using Id = std::pair<int, int>; // pid, sid
using wdf::faults::fail_nth_send;
using wdf::faults::Op;

// Whether a line of the log carries both the function's name in its prefix and the text.
bool logged_by(const std::string& function, const std::string& text)
{
    // In real time the prefix and the text of a line may be split by another thread's line,
    // so there only the text is looked for.
    if (sched::current().mode() != sched::Mode::Simulated) {
        return kernel::debug_output().find(text) != std::string::npos;
    }
    std::istringstream lines(kernel::debug_output());
    for (std::string line; std::getline(lines, line);) {
        std::size_t name = line.find(function);
        if (name != std::string::npos && line.find(text, name + function.size()) != line.npos) {
            return true;
        }
    }
    return false;
}

class GpsControl : public DataPath
{
  protected:
    std::vector<Id> received_ids()
    {
        std::vector<Id> ids;
        for (const Frame& f : chip_received()) {
            ids.emplace_back(f.pid, f.sid);
        }
        return ids;
    }
    // Addresses of the memory writes the chip received, in order.
    std::vector<std::uint32_t> written_addresses()
    {
        std::vector<std::uint32_t> addresses;
        for (const Frame& f : chip_received(HCI_PID_MEM_WRITE)) {
            addresses.push_back(f.payload[0] | f.payload[1] << 8 | f.payload[2] << 16 |
                                static_cast<std::uint32_t>(f.payload[3]) << 24);
        }
        return addresses;
    }
    void fail_write(std::uint64_t n)
    {
        if (n != 0) {
            wdf::faults::add(fail_nth_send(n, Op::Write));
        }
    }
    // Commands not awaited are answered later; this lets the chip hear and answer them.
    void settle() { run_for(20 * kMillisecond); }
};

const Id kNmeaOff{0xFF, 2}, kNmeaOn{0xFF, 3}, kNmeaStart{0xFF, 4};
const Id kMemWrite1{HCI_PID_MEM_WRITE, 1}, kMemRead{HCI_PID_MEM_READ, 0};
const Id kRf{0x10, 0}, kColdStart{0x20, 6}, kWarmStart{0x20, 2};

struct StartUpCase {
    const char* name;
    std::uint64_t failing_write; // 0: none
    bool nmea_on_after;
    friend void PrintTo(const StartUpCase& c, std::ostream* os) { *os << c.name; }
};

const StartUpCase kStartUpCases[] = {
    {"all", 0, true},
    {"nmea_off_fails", 1, true},
    {"memory_fails", 2, false},
    {"rf_register_fails", 3, false},
    {"nmea_on_fails", 4, false},
};

class StartUp : public GpsControl, public testing::WithParamInterface<StartUpCase>
{
};

// A failed step ends the sequence; what ran before it stays done. Its message is checked
// with the other log lines.
TEST_P(StartUp, SendsItsStepsInOrderAndStopsAtTheFirstFailure)
{
    const std::vector<Id> steps = {kNmeaOff, kMemWrite1, kRf, kNmeaOn};
    const StartUpCase& c = GetParam();
    start_with_chip(true);
    ops().SetEndianMode(0);
    fail_write(c.failing_write);
    EXPECT_EQ(ops().DownloadPatchCode(&ext()), c.failing_write == 0);
    settle();

    std::size_t done = c.failing_write == 0 ? steps.size() : c.failing_write - 1;
    EXPECT_EQ(received_ids(), std::vector<Id>(steps.begin(), steps.begin() + done));
    EXPECT_EQ(ext().DownloadFail_flag, c.failing_write == 0 ? 0u : 1u);
    EXPECT_EQ(chip().state().nmea_on, c.nmea_on_after);
    // The chip powers up with 1 there; the sequence's memory step clears it.
    bool cleared = c.failing_write == 0 || c.failing_write > 2;
    EXPECT_EQ(chip().peek(0x8010A74A, 1), Bytes{static_cast<std::uint8_t>(cleared ? 0 : 1)});
    if (c.failing_write == 0) {
        // Little-endian from the first command on.
        std::vector<Frame> sent = chip_received();
        EXPECT_EQ(sent[1].payload, (Bytes{0x4A, 0xA7, 0x10, 0x80, 0x00}));
        EXPECT_EQ(sent[2].payload, (Bytes{0x31, 0x56, 0xA8, 0x02}));
        EXPECT_EQ(chip().state().rf_registers.at(0x31), 0x2A856u);
    }
}

INSTANTIATE_TEST_SUITE_P(GpsControl, StartUp, testing::ValuesIn(kStartUpCases),
                         [](const testing::TestParamInfo<StartUpCase>& info) {
                             return std::string(info.param.name);
                         });

struct StartCase {
    const char* name;
    ULONG mode;
    ULONG initialized;
    std::optional<Fault> fault;
    std::uint64_t failing_write;
    LONG result;
    std::vector<Id> sent;
    std::vector<std::uint32_t> written;
    friend void PrintTo(const StartCase& c, std::ostream* os) { *os << c.name; }
};

// Before initialisation a cold start first sets the chip's control byte behind its guard;
// after it, the start is followed by a memory clear. A cold start is not awaited, so a chip
// that never answers it does not fail it.
const StartCase kStartCases[] = {
    {"cold_before_init",
     GPS_START_COLD,
     0,
     std::nullopt,
     0,
     0,
     {kMemWrite1, kMemRead, kMemRead, kMemWrite1, kMemRead, kMemRead, kColdStart},
     {HCI_CHIP_GUARD_REGISTER, HCI_CHIP_CTRL_BYTE}},
    {"cold_after_init",
     GPS_START_COLD,
     1,
     std::nullopt,
     0,
     0,
     {kColdStart, kMemWrite1},
     {0x8010A731}},
    {"cold_never_answered",
     GPS_START_COLD,
     1,
     Fault::no_ack(1, 0x20, 6),
     0,
     0,
     {kColdStart, kMemWrite1},
     {0x8010A731}},
    {"cold_guard_write_fails", GPS_START_COLD, 0, std::nullopt, 1, -1, {}, {}},
    {"warm", GPS_START_WARM, 1, std::nullopt, 0, 0, {kWarmStart}, {}},
    {"warm_fails", GPS_START_WARM, 1, std::nullopt, 1, -1, {}, {}},
    {"mode_2", 2, 1, std::nullopt, 0, -1, {}, {}},
};

class Starts : public GpsControl, public testing::WithParamInterface<StartCase>
{
};

TEST_P(Starts, SendWhatTheModeAndInitialisationAskFor)
{
    const StartCase& c = GetParam();
    start_with_chip();
    chip().poke(0x8010A731, Bytes{0x55});
    ext().Initialized_flag = c.initialized;
    if (c.fault) {
        chip().inject(*c.fault);
    }
    fail_write(c.failing_write);
    EXPECT_EQ(ops().StartGps(&ext(), c.mode), c.result);
    settle();

    EXPECT_EQ(received_ids(), c.sent);
    EXPECT_EQ(written_addresses(), c.written);
    bool cleared = !c.written.empty() && c.written.back() == 0x8010A731;
    EXPECT_EQ(chip().peek(0x8010A731, 1), Bytes{static_cast<std::uint8_t>(cleared ? 0 : 0x55)});
    if (c.mode == GPS_START_COLD && c.initialized == 0 && c.result == 0) {
        EXPECT_EQ(chip().peek(HCI_CHIP_CTRL_BYTE, 1), Bytes{70});
    }
    if (c.sent.size() > 0 && c.sent.back() == kColdStart) {
        EXPECT_EQ(chip_received(0x20).back().payload, (Bytes{0x00, 0x04}));
    }
    if (c.mode == GPS_START_WARM) {
        EXPECT_EQ(chip().state().warm_starts, c.result == 0 ? 1 : 0);
    }
}

INSTANTIATE_TEST_SUITE_P(GpsControl, Starts, testing::ValuesIn(kStartCases),
                         [](const testing::TestParamInfo<StartCase>& info) {
                             return std::string(info.param.name);
                         });

// The client's view: sentences stop when output is switched off and come back when it is
// switched on again.
TEST_F(GpsControl, NmeaOutputStopsAndRestartsTheSentencesAClientReads)
{
    start_with_chip(true);
    std::shared_ptr<pnp::PendingIo> pending;
    auto sentences_read = [&](sched::Nanos d) {
        int n = 0;
        for (sched::Nanos end = now() + d; now() < end;) {
            if (!pending) {
                pending = read();
            }
            if (pending->wait(end)) {
                n += read_frame(*pending).at(3) == 0x31;
                pending.reset();
            }
        }
        return n;
    };
    auto forget_earlier = [&] {
        run_for(100 * kMillisecond);
        if (pending && pending->done()) {
            pending.reset();
        }
    };

    EXPECT_GT(sentences_read(2500 * kMillisecond), 0);
    ASSERT_EQ(ops().SetNmeaOutput(0, &ext()), 0);
    forget_earlier();
    EXPECT_EQ(sentences_read(2500 * kMillisecond), 0);
    ASSERT_EQ(ops().SetNmeaOutput(1, &ext()), 0);
    forget_earlier();
    EXPECT_GT(sentences_read(2500 * kMillisecond), 0);
    std::vector<Id> sent = received_ids();
    EXPECT_EQ(sent, (std::vector<Id>{kNmeaOff, kNmeaStart, kNmeaOn}));
}

// Switching output on sends the start packet first; when the chip never takes it, the switch
// is never sent. Each failed switch says which way it went.
TEST_F(GpsControl, NmeaAndOptionSwitchesReportTheirFailures)
{
    const struct {
        const char* name;
        std::uint64_t failing_write;
        std::optional<Fault> fault;
        std::vector<Id> sent;
        const char* message;
    } cases[] = {
        {"on_start_unanswered", 0, Fault::no_ack(5, 0xFF, 4), std::vector<Id>(5, kNmeaStart),
         nullptr},
        {"on_switch_fails", 2, std::nullopt, {kNmeaStart}, "enable"},
    };
    start_with_chip();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::size_t before = chip_received().size();
        fail_write(c.failing_write);
        if (c.fault) {
            chip().inject(*c.fault);
        }
        EXPECT_EQ(ops().SetNmeaOutput(1, &ext()), -1);
        settle();
        std::vector<Id> ids = received_ids();
        EXPECT_EQ(std::vector<Id>(ids.begin() + before, ids.end()), c.sent);
        if (c.message != nullptr) {
            EXPECT_TRUE(logged_by("set_nmea_switch", c.message));
        }
        wdf::faults::clear();
        kernel::clear_debug_output();
    }
    ASSERT_EQ(ops().SetOutputOption(&ext(), 1), 0);
    EXPECT_EQ(chip().state().option, 1);
}

// ---------------------------------------------------------------------------------------
// Assisted GPS
// ---------------------------------------------------------------------------------------

// Every block of the record has bytes of its own: type in the high bits, slot in the low.
GPS_AGPS_RECORD agps_record(std::uint8_t valid, std::initializer_list<int> slots)
{
    GPS_AGPS_RECORD r{};
    r.Valid = valid;
    for (int s : slots) {
        r.SlotFlags[s] = 1;
    }
    std::memset(r.Type0, 0xE0, sizeof(r.Type0));
    for (int i = 0; i < GPS_AGPS_SLOTS; i++) {
        std::memset(r.Type1[i], 0x20 | i, sizeof(r.Type1[i]));
        std::memset(r.Type2[i], 0x40 | i, sizeof(r.Type2[i]));
        std::memset(r.Type31[i], 0x60 | i, sizeof(r.Type31[i]));
        std::memset(r.Type32[i], 0x80 | i, sizeof(r.Type32[i]));
        std::memset(r.Type33[i], 0xA0 | i, sizeof(r.Type33[i]));
        std::memset(r.Type4[i], 0xC0 | i, sizeof(r.Type4[i]));
    }
    return r;
}

// The blocks a whole transfer sends, in order: (sid, bytes).
std::vector<std::pair<std::uint8_t, Bytes>> agps_blocks(const GPS_AGPS_RECORD& r)
{
    std::vector<std::pair<std::uint8_t, Bytes>> blocks;
    auto add = [&](std::uint8_t sid, const std::uint8_t* b, std::size_t n) {
        blocks.emplace_back(sid, Bytes(b, b + n));
    };
    if (r.Valid == 0) {
        return blocks;
    }
    add(0, r.Type0, sizeof(r.Type0));
    for (int i = 0; i < GPS_AGPS_SLOTS; i++) {
        if (r.SlotFlags[i] != 0) {
            add(1, r.Type1[i], sizeof(r.Type1[i]));
            add(2, r.Type2[i], sizeof(r.Type2[i]));
            add(3, r.Type31[i], sizeof(r.Type31[i]));
            add(4, r.Type32[i], sizeof(r.Type32[i]));
            add(5, r.Type33[i], sizeof(r.Type33[i]));
            add(6, r.Type4[i], sizeof(r.Type4[i]));
        }
    }
    return blocks;
}

// What the chip holds after the first `sent` blocks: type 0 starts a set, type 1 a slot.
sim::chip::Assistance assistance_after(const GPS_AGPS_RECORD& r, std::size_t sent,
                                       sim::chip::Assistance before)
{
    std::vector<std::pair<std::uint8_t, Bytes>> blocks = agps_blocks(r);
    for (std::size_t i = 0; i < sent; i++) {
        const auto& [sid, bytes] = blocks[i];
        if (sid == 0) {
            before = sim::chip::Assistance{bytes, {}};
            continue;
        }
        if (sid == 1) {
            before.slots.emplace_back();
        }
        before.slots.back().blocks[sid] = bytes;
    }
    return before;
}

TEST_F(GpsControl, AssistanceWalkSendsFlaggedSlotsAndStopsAtTheFirstFailure)
{
    const struct {
        const char* name;
        GPS_AGPS_RECORD record;
        std::uint64_t failing_write;
        LONG result;
        std::size_t sent; // blocks the chip got
        const char* message;
    } cases[] = {
        {"not_valid", agps_record(0, {0, 1}), 0, 0, 0, nullptr},
        {"no_slots", agps_record(1, {}), 0, 0, 1, nullptr},
        {"two_slots", agps_record(1, {1, 30}), 0, 0, 13, nullptr},
        {"type0_fails", agps_record(1, {1}), 1, -1, 0, "Failed to xfer type0"},
        // Type 0, slots 0 to 4 whole, then slot 5's type 1: its type 2 is the 33rd write.
        {"slot5_type2_fails", agps_record(1, {0, 1, 2, 3, 4, 5, 6}), 33, -1, 32,
         "Failed to xfer type2"},
        {"slot0_type31_fails", agps_record(1, {0}), 4, -1, 3, "Failed to xfer type31"},
        {"slot0_type4_fails", agps_record(1, {0}), 7, -1, 6, "Failed to xfer type4"},
    };
    start_with_chip();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        sim::chip::Assistance before = chip().state().agps;
        std::size_t commands = chip_received(HCI_PID_AGPS).size();
        fail_write(c.failing_write);
        EXPECT_EQ(ops().AgpsTx(&ext(), &c.record), c.result);
        settle();
        EXPECT_EQ(chip_received(HCI_PID_AGPS).size() - commands, c.sent);
        EXPECT_EQ(chip().state().agps, assistance_after(c.record, c.sent, before));
        if (c.message != nullptr) {
            EXPECT_TRUE(logged_by("hci_command_agps_tx", c.message));
        }
        wdf::faults::clear();
        kernel::clear_debug_output();
    }
}

// ---------------------------------------------------------------------------------------
// Geofences
// ---------------------------------------------------------------------------------------

constexpr USHORT kFenceId = 0x1234;
constexpr std::uint8_t kEntered = 1, kExited = 2;

// A fence that watches for entering only.
GEOFENCE_PAYLOAD fence(USHORT id)
{
    GEOFENCE_PAYLOAD p{};
    p.Field1 = id;
    p.Field2 = 481173000; // latitude, 1e-7 degree
    p.Field3 = 115166000; // longitude
    p.Field4 = 100;       // radius, m
    p.Field5 = kExited;   // last transition
    p.Field6 = kEntered;  // monitored
    p.Field7 = 1000;      // notification interval, ms
    return p;
}

GEOFENCE_CMD_PAYLOAD fence_command(USHORT id, std::uint8_t argument = 0)
{
    return {{static_cast<UCHAR>(id), static_cast<UCHAR>(id >> 8), argument, 0}};
}

// The statuses follow what the commands did to the chip's table; statuses 3 and 4 give their
// results crossed over. A status the table never gives is forced last.
TEST_F(GpsControl, GeofenceResultsFollowTheChipsTable)
{
    start_with_chip();
    auto add = [&](USHORT id) {
        GEOFENCE_PAYLOAD p = fence(id);
        return ops().Geofence(&ext(), id, 0x30, 0, &p, sizeof(p));
    };
    auto command = [&](std::uint8_t sid, USHORT id, std::uint8_t argument = 0) {
        GEOFENCE_CMD_PAYLOAD p = fence_command(id, argument);
        return ops().GeofenceCmd(&ext(), id, 0x30, sid, &p, sizeof(p));
    };
    const struct {
        const char* name;
        std::function<LONG()> call;
        LONG result;
        const char* text;
    } steps[] = {
        {"add", [&] { return add(kFenceId); }, 0, "operation success"},
        {"add_again", [&] { return add(kFenceId); }, GEOFENCE_ID_EXISTS,
         "geofence id already exists"},
        {"report_unmonitored", [&] { return command(6, kFenceId, kExited); },
         GEOFENCE_INVALID_TRANSITION, "invalid transition"},
        {"query_unknown", [&] { return command(4, 0x9999); }, GEOFENCE_UNKNOWN_ID,
         "unknown geofence id"},
        {"pause", [&] { return command(2, kFenceId); }, 0, "operation success"},
        {"pause_paused", [&] { return command(2, kFenceId); }, GEOFENCE_GENERIC_ERROR,
         "generic errors"},
        {"fill_the_table",
         [&] {
             LONG r = 0;
             for (USHORT id = 1; id < 8 && r == 0; id++) {
                 r = add(id);
             }
             return r;
         },
         0, "operation success"},
        {"one_too_many", [&] { return add(8); }, GEOFENCE_TOO_MANY, "too many geofences"},
        {"status_9",
         [&] {
             chip().set_geofence_status(9);
             return command(4, kFenceId);
         },
         GEOFENCE_GENERIC_ERROR, "unknown status"},
    };
    for (const auto& s : steps) {
        SCOPED_TRACE(s.name);
        EXPECT_EQ(s.call(), s.result);
        EXPECT_TRUE(logged_by("geofence_status", s.text));
        kernel::clear_debug_output();
    }
    EXPECT_EQ(chip().state().geofences.size(), 8u);
    EXPECT_EQ(chip().state().geofences.at(kFenceId).radius, 100u);
}

// Refused commands send nothing; an answer about another fence is a failure.
TEST_F(GpsControl, GeofenceCommandsRefusedOrAnsweredForAnotherFenceFail)
{
    start_with_chip();
    const GEOFENCE_PAYLOAD payload = fence(kFenceId);
    const GEOFENCE_CMD_PAYLOAD command = fence_command(kFenceId);
    const struct {
        const char* name;
        UCHAR pid;
        UCHAR sid;
        USHORT length;
        const GEOFENCE_PAYLOAD* payload;
    } refused[] = {
        {"pid_0x31", 0x31, 0, sizeof(payload), &payload},
        {"sid_7", 0x30, 7, sizeof(payload), &payload},
        {"no_payload", 0x30, 0, sizeof(payload), nullptr},
        {"beyond_the_record", 0x30, 0, sizeof(payload) + 1, &payload},
    };
    for (const auto& c : refused) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(ops().Geofence(&ext(), kFenceId, c.pid, c.sid, c.payload, c.length),
                  GEOFENCE_GENERIC_ERROR);
    }
    EXPECT_EQ(ops().GeofenceCmd(&ext(), kFenceId, 0x30, 4, &command, sizeof(command) + 1),
              GEOFENCE_GENERIC_ERROR);
    settle();
    EXPECT_TRUE(chip_received(0x30).empty());
    EXPECT_TRUE(chip_received(0x31).empty());

    // The chip names the fence of the command, not the one expected.
    EXPECT_EQ(ops().Geofence(&ext(), kFenceId + 1, 0x30, 0, &payload, sizeof(payload)),
              GEOFENCE_GENERIC_ERROR);
    EXPECT_EQ(chip_received(0x30).size(), 1u);
    EXPECT_EQ(chip().state().geofences.count(kFenceId), 1u);
}

} // namespace
} // namespace mvgps::test
