// GPS control from a client against the simulated chip: the start-up sequence a wake-up
// re-runs, the cold start, NMEA output, the assistance walk and the baud-rate switch that
// follows a rate command. Failures come from the UART refusing the n-th write, so the packet
// that fails never reaches the chip.
#include <cstdio>
#include <cstring>
#include <optional>

#include "control/control.h"
#include "control/gps.h"
#include "driver_fixture.h"
#include "host/wdf/faults.h"
#include "link/device/command.h"

namespace mvgps::test
{
namespace
{

using Id = std::pair<int, int>; // pid, sid
const Id kNmeaOff{0xFF, 2}, kNmeaOn{0xFF, 3}, kNmeaStart{0xFF, 4};
const Id kMemWrite1{HCI_PID_MEM_WRITE, 1}, kMemRead{HCI_PID_MEM_READ, 0};
const Id kRf{0x10, 0}, kColdStart{0x20, 6};

class GpsControl : public ClientTest
{
  protected:
    void SetUp() override
    {
        ClientTest::SetUp();
        heard_ = chip_received().size();
    }
    NTSTATUS call(ULONG code, const Bytes& input = {}) { return client_->ioctl(code, input, {}); }
    void fail_write(std::uint64_t n)
    {
        if (n != 0) {
            wdf::faults::add(wdf::faults::fail_nth_send(n, wdf::faults::Op::Write));
        }
    }
    // What the chip heard since the last call, once the commands not awaited have arrived.
    std::vector<Frame> heard()
    {
        run_for(20 * kMillisecond);
        std::vector<Frame> all = chip_received();
        std::vector<Frame> recent(all.begin() + heard_, all.end());
        heard_ = all.size();
        return recent;
    }
    static std::vector<Id> ids(const std::vector<Frame>& frames)
    {
        std::vector<Id> out;
        for (const Frame& f : frames) {
            out.emplace_back(f.pid, f.sid);
        }
        return out;
    }

  private:
    std::size_t heard_ = 0;
};

struct StartUpCase {
    const char* name;
    std::uint64_t failing_write; // 0: none
    bool nmea_on_after;
};

void PrintTo(const StartUpCase& c, std::ostream* os)
{
    *os << c.name;
}

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

// A wake-up re-runs the chip's start-up. A failed step ends it, what ran before stays done,
// and the client still hears of success.
TEST_P(StartUp, StepsInOrderUntilTheFirstFailure)
{
    const std::vector<Id> steps = {kNmeaOff, kMemWrite1, kRf, kNmeaOn};
    const StartUpCase& c = GetParam();
    chip().poke(0x8010A74A, Bytes{1});
    fail_write(c.failing_write);
    EXPECT_EQ(call(IOCTL_VC_GPS_WAKEUP), STATUS_SUCCESS);
    std::vector<Frame> sent = heard();

    const std::size_t done = c.failing_write == 0 ? steps.size() : c.failing_write - 1;
    EXPECT_EQ(ids(sent), std::vector<Id>(steps.begin(), steps.begin() + done));
    EXPECT_EQ(ext().DownloadFail_flag, c.failing_write == 0 ? 0u : 1u);
    EXPECT_EQ(chip().state().nmea_on, c.nmea_on_after);
    const bool cleared = c.failing_write == 0 || c.failing_write > 2;
    EXPECT_EQ(chip().peek(0x8010A74A, 1), Bytes{static_cast<std::uint8_t>(cleared ? 0 : 1)});
    if (c.failing_write == 0) {
        EXPECT_EQ(sent[1].payload, (Bytes{0x4A, 0xA7, 0x10, 0x80, 0x00}));
        EXPECT_EQ(sent[2].payload, (Bytes{0x31, 0x56, 0xA8, 0x02}));
        EXPECT_EQ(chip().state().rf_registers.at(0x31), 0x2A856u);
    }
}

INSTANTIATE_TEST_SUITE_P(Driver, StartUp, testing::ValuesIn(kStartUpCases),
                         [](const auto& info) { return std::string(info.param.name); });

// Before initialisation a cold start first sets the chip's control byte behind its guard;
// after it, the start is followed by a memory clear. The start is not awaited, so a chip
// that never answers it does not fail it.
TEST_F(GpsControl, ColdStartFollowsInitialisation)
{
    const struct {
        const char* name;
        ULONG initialized;
        std::optional<Fault> fault;
        std::uint64_t failing_write;
        NTSTATUS status;
        std::vector<Id> sent;
    } cases[] = {
        {"before_init",
         0,
         std::nullopt,
         0,
         STATUS_SUCCESS,
         {kMemWrite1, kMemRead, kMemRead, kMemWrite1, kMemRead, kMemRead, kColdStart}},
        {"after_init", 1, std::nullopt, 0, STATUS_SUCCESS, {kColdStart, kMemWrite1}},
        {"never_answered",
         1,
         Fault::no_ack(1, 0x20, 6),
         0,
         STATUS_SUCCESS,
         {kColdStart, kMemWrite1}},
        {"guard_write_fails", 0, std::nullopt, 1, STATUS_UNSUCCESSFUL, {}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        chip().poke(0x8010A731, Bytes{0x55});
        chip().poke(HCI_CHIP_CTRL_BYTE, Bytes{0});
        ext().Initialized_flag = c.initialized;
        if (c.fault) {
            chip().inject(*c.fault);
        }
        fail_write(c.failing_write);
        EXPECT_EQ(call(IOCTL_VC_GPS_STARTUP), c.status);
        std::vector<Frame> sent = heard();
        EXPECT_EQ(ids(sent), c.sent);
        const bool started = !c.sent.empty();
        EXPECT_EQ(chip().peek(0x8010A731, 1),
                  Bytes{static_cast<std::uint8_t>(started && c.initialized ? 0 : 0x55)});
        EXPECT_EQ(chip().peek(HCI_CHIP_CTRL_BYTE, 1),
                  Bytes{static_cast<std::uint8_t>(started && !c.initialized ? 70 : 0)});
        if (started) {
            EXPECT_EQ(chip_received(0x20).back().payload, (Bytes{0x00, 0x04}));
        }
        wdf::faults::clear();
    }
}

// Output off, then on again with the start packet first; the chip's sentences follow.
TEST_F(GpsControl, NmeaOutputOffAndOnAgain)
{
    ASSERT_EQ(call(IOCTL_VC_GPS_DISABLE_NMEA), STATUS_SUCCESS);
    const std::uint64_t sentences = chip().stats().nmea_sent;
    run_for(2500 * kMillisecond);
    EXPECT_EQ(chip().stats().nmea_sent, sentences);
    ASSERT_EQ(call(IOCTL_VC_GPS_ENABLE_NMEA), STATUS_SUCCESS);
    run_for(2500 * kMillisecond);
    EXPECT_GT(chip().stats().nmea_sent, sentences);
    EXPECT_EQ(ids(heard()), (std::vector<Id>{kNmeaOff, kNmeaStart, kNmeaOn}));
}

// When the chip never takes the start packet, the switch is never sent; a failed switch
// says which way it went. The feature switch turns the receiver's option off.
TEST_F(GpsControl, NmeaSwitchFailuresAndTheFeatureSwitch)
{
    chip().inject(Fault::no_ack(5, 0xFF, 4));
    EXPECT_EQ(call(IOCTL_VC_GPS_ENABLE_NMEA), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(ids(heard()), std::vector<Id>(5, kNmeaStart));
    fail_write(2);
    EXPECT_EQ(call(IOCTL_VC_GPS_ENABLE_NMEA), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(ids(heard()), std::vector<Id>{kNmeaStart});
    EXPECT_TRUE(logged("Failed to Enable EMEA!"));
    wdf::faults::clear();

    Bytes answer(64);
    ASSERT_EQ(client_->ioctl(IOCTL_VC_GPS_SENDCMD_ACK, command(0x22, 5, {1}), answer),
              STATUS_SUCCESS);
    ASSERT_EQ(chip().state().option, 1);
    EXPECT_EQ(call(IOCTL_VC_GPS_FEATURE_OFF), STATUS_SUCCESS);
    EXPECT_EQ(chip().state().option, 0);
}

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

// The blocks a whole walk sends, in order, as (sid, payload): type 0, then each flagged
// slot's six.
std::vector<std::pair<int, Bytes>> agps_blocks(const GPS_AGPS_RECORD& r)
{
    std::vector<std::pair<int, Bytes>> blocks;
    auto add = [&](int sid, const std::uint8_t* b, std::size_t n) {
        blocks.emplace_back(sid, Bytes(b, b + n));
    };
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

// The walk sends the flagged slots and stops at the first failure, which the client does not
// hear of: only the record's size is its business.
TEST_F(GpsControl, AssistanceWalkSendsFlaggedSlotsAndStopsAtTheFirstFailure)
{
    const struct {
        const char* name;
        GPS_AGPS_RECORD record;
        std::uint64_t failing_write;
        std::size_t sent; // blocks the chip got
        const char* message;
    } cases[] = {
        {"not_valid", agps_record(0, {0, 1}), 0, 0, nullptr},
        {"no_slots", agps_record(1, {}), 0, 1, nullptr},
        {"two_slots", agps_record(1, {1, 30}), 0, 13, nullptr},
        {"type0_fails", agps_record(1, {1}), 1, 0, "Failed to xfer type0"},
        // Type 0, slots 0 to 4 whole, then slot 5's type 1: its type 2 is the 33rd write.
        {"slot5_type2_fails", agps_record(1, {0, 1, 2, 3, 4, 5, 6}), 33, 32,
         "Failed to xfer type2"},
        {"slot0_type31_fails", agps_record(1, {0}), 4, 3, "Failed to xfer type31"},
        {"slot0_type4_fails", agps_record(1, {0}), 7, 6, "Failed to xfer type4"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        kernel::clear_debug_output();
        fail_write(c.failing_write);
        Bytes record(sizeof(GPS_AGPS_RECORD));
        std::memcpy(record.data(), &c.record, record.size());
        EXPECT_EQ(call(IOCTL_VC_GPS_AGPS_DATA, record), STATUS_SUCCESS);
        std::vector<std::pair<int, Bytes>> sent;
        for (const Frame& f : heard()) {
            sent.emplace_back(f.sid, f.payload);
        }
        const std::vector<std::pair<int, Bytes>> all = agps_blocks(c.record);
        EXPECT_EQ(sent, std::vector(all.begin(), all.begin() + c.sent));
        if (c.message != nullptr) {
            EXPECT_TRUE(logged(c.message));
        }
        wdf::faults::clear();
    }
}

struct SwitchCase {
    const char* name;
    std::uint32_t rate;
    std::optional<ULONG> refused; // serial control code the port refuses
    bool switched;                // the driver's switch reports success
    bool reading;                 // frames flow at the new rate
};

void PrintTo(const SwitchCase& c, std::ostream* os)
{
    *os << c.name;
}

const SwitchCase kSwitchCases[] = {
    {"to_115200", 115200, std::nullopt, true, true},
    {"same_rate_again", 921600, std::nullopt, true, true},
    {"rate_refused", 115200, IOCTL_SERIAL_SET_BAUD_RATE, false, false},
    {"line_control_refused", 115200, IOCTL_SERIAL_SET_LINE_CONTROL, false, false},
    {"handflow_refused", 115200, IOCTL_SERIAL_SET_HANDFLOW, true, false},
};

class BaudSwitch : public GpsControl, public testing::WithParamInterface<SwitchCase>
{
  protected:
    // Tells the chip its new rate; the driver follows once the command is out.
    void switch_to(std::uint32_t rate)
    {
        const std::size_t done = count("change_baudrate to 115200");
        auto pending = client_->ioctl_async(IOCTL_VC_SET_LOG_GPS_SENDCMD,
                                            command(GPS_COMMAND_PID_BAUD_RATE, 0, le32(rate)), 64);
        ASSERT_TRUE(wait_until([&] { return count("change_baudrate to 115200") > done; }));
        pending->cancel();
        ASSERT_TRUE(pending->wait(now() + kSecond));
    }
    static std::size_t frames_handled() { return count("+++local_process_pkt"); }
};

TEST_P(BaudSwitch, FramesFlowAtTheNewRateUnlessThePortRefused)
{
    const SwitchCase& c = GetParam();
    if (c.refused) {
        wdf::faults::add(wdf::faults::fail_control(*c.refused));
    }
    switch_to(c.rate);
    EXPECT_EQ(logged("change_baudrate to 115200 success."), c.switched);
    EXPECT_TRUE(logged("Set BaudRate(" + std::to_string(c.rate) + ")"));
    wdf::faults::clear();

    const std::size_t before = frames_handled();
    run_for(200 * kMillisecond);
    EXPECT_EQ(frames_handled() > before, c.reading);
    EXPECT_EQ(peek(ext().ReadThread) != nullptr, c.reading);
    if (c.reading) {
        EXPECT_EQ(uart().settings().rate, c.rate);
        Bytes answer(64);
        EXPECT_EQ(client_->ioctl(IOCTL_VC_GPS_SENDCMD_ACK, command(0x22, 5, {1}), answer),
                  STATUS_SUCCESS);
    }
}

INSTANTIATE_TEST_SUITE_P(Driver, BaudSwitch, testing::ValuesIn(kSwitchCases),
                         [](const auto& info) { return std::string(info.param.name); });

// What a client waits for, 115200 to 921600 bit/s: from its rate command to the driver's
// switch, and to the first frame read at the new rate.
TEST_F(BaudSwitch, TimeToTheFirstFrameAtTheNewRate)
{
    switch_to(115200);
    run_for(100 * kMillisecond);
    const sched::Nanos start = now();
    switch_to(921600);
    const sched::Nanos switched = now();
    const std::size_t before = frames_handled();
    ASSERT_TRUE(wait_until([&] { return frames_handled() > before; }, 200 * kMillisecond));
    std::printf("baud switch 115200 -> 921600: %.1f ms to the switch, %.1f ms to the first "
                "frame\n",
                (switched - start) / 1e6, (now() - start) / 1e6);
    if (simulated()) {
        EXPECT_LT(now() - start, 100 * kMillisecond);
    }
}

} // namespace
} // namespace mvgps::test
