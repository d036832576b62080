// The hostile world: every way the chip misbehaves, against the whole driver, with what a
// client sees. A client asks for NMEA output (a command the driver sends with
// acknowledgement and resends) while the fault is armed; then either reading goes on, with
// fresh frames and nothing damaged handed over, or it stays stopped until the next wake,
// which brings it back. docs/limits.md says why for each row that does not recover.
#include "control/control.h"
#include "sim/chip/faults.h"
#include "sim/chip/protocol.h"
#include "stress.h"

namespace mvgps::test
{
namespace
{

using sim::chip::Fault;
using sim::chip::Output;
namespace proto = sim::chip;

constexpr int kNmeaPid = proto::kPidNmea;
constexpr int kNmeaOn = 3;

struct Hostile {
    const char* name;
    std::vector<Fault> faults;
    NTSTATUS status;     // what the client's NMEA-on request completes with
    bool reading_stops;  // reads find nothing until the next wake
    sched::Nanos before; // how long the fault plays before the client's request
};

void PrintTo(const Hostile& h, std::ostream* os)
{
    *os << h.name;
}

const Hostile kWorld[] = {
    // Commands: the driver resends up to five times, a second apart.
    {"NoAckOnce", {Fault::no_ack(1, kNmeaPid, kNmeaOn)}, STATUS_SUCCESS, false, 0},
    {"NoAckEveryTry", {Fault::no_ack(5, kNmeaPid, kNmeaOn)}, STATUS_UNSUCCESSFUL, false, 0},
    {"RejectedOnce", {Fault::reject(1, 3, kNmeaPid, kNmeaOn)}, STATUS_SUCCESS, false, 0},
    {"RejectedEveryTry", {Fault::reject(5, 3, kNmeaPid, kNmeaOn)}, STATUS_SUCCESS, false, 0},
    {"LateAckWithinTheWait",
     {Fault::late_ack(1, 500 * kMillisecond, kNmeaPid, kNmeaOn)},
     STATUS_SUCCESS,
     false,
     0},
    {"LateAckAfterTheResend",
     {Fault::late_ack(1, 1500 * kMillisecond, kNmeaPid, kNmeaOn)},
     STATUS_SUCCESS,
     false,
     0},
    {"DuplicateAck", {Fault::duplicate_ack(2, kNmeaPid, kNmeaOn)}, STATUS_SUCCESS, false, 0},
    // Damaged frames are dropped whole; a damaged answer is resent for.
    {"CorruptCrcAnswer", {Fault::corrupt_crc(1, Output::Answers)}, STATUS_SUCCESS, false, 0},
    {"CorruptTailAnswer", {Fault::corrupt_tail(1, Output::Answers)}, STATUS_SUCCESS, false, 0},
    {"CorruptFrames",
     {Fault::corrupt_crc(20, Output::Status), Fault::corrupt_tail(20, Output::Status)},
     STATUS_SUCCESS,
     false,
     0},
    {"GarbageBetweenFrames", {Fault::garbage(30, 40, Output::Any)}, STATUS_SUCCESS, false, 0},
    {"FfRuns", {Fault::padding(30, 64, Output::Any)}, STATUS_SUCCESS, false, 0},
    {"ReadSplitsShort",
     {Fault::split_burst(30, 2 * kMillisecond, Output::Any)},
     STATUS_SUCCESS,
     false,
     0},
    {"ReadSplitsPastTheInterval",
     {Fault::split_burst(30, 15 * kMillisecond, Output::Any)},
     STATUS_SUCCESS,
     false,
     0},
    // The line falls silent for longer than a read waits: reading ends.
    {"SilenceShort", {Fault::silence(30 * kMillisecond)}, STATUS_SUCCESS, false, 0},
    {"SilenceLong",
     {Fault::silence(200 * kMillisecond)},
     STATUS_UNSUCCESSFUL,
     true,
     300 * kMillisecond},
    // A reset: the chip is mute while it boots, longer than a read waits.
    {"ChipReset", {Fault::reset()}, STATUS_UNSUCCESSFUL, true, 300 * kMillisecond},
    // The chip's UART leaves the agreed rate: nothing it sends makes sense to the driver.
    {"RateMismatch", {Fault::rate_mismatch(115200)}, STATUS_UNSUCCESSFUL, true, 300 * kMillisecond},
};

class World : public StressTest, public testing::WithParamInterface<Hostile>
{
};

TEST_P(World, ClientSeesWhatTheTableSays)
{
    const Hostile& h = GetParam();
    start_running();
    std::unique_ptr<pnp::ClientHandle> client = open_parent();
    for (const Fault& f : h.faults) {
        chip().inject(f);
    }
    run_for(h.before);
    // The first epoch after NMEA comes on can end reading at any rate (docs/limits.md); the
    // command's answers then go unread and it fails whatever the row expects.
    const NTSTATUS status = client->ioctl(IOCTL_VC_GPS_ENABLE_NMEA, {}, {});
    if (status != h.status) {
        EXPECT_EQ(status, STATUS_UNSUCCESSFUL);
        EXPECT_TRUE(reading_ended()) << "the command failed with reading going on";
    }

    if (h.reading_stops) {
        auto read = send(*client, IOCTL_VC_GPS_START_READ);
        run_for(500 * kMillisecond);
        EXPECT_FALSE(read->done()) << "reading went on";
        if (chip().rate() != uart().settings().rate) {
            chip().inject(Fault::rate_mismatch(uart().settings().rate));
        }
        ASSERT_EQ(stack().sleep(PowerDeviceD3), STATUS_SUCCESS);
        ASSERT_EQ(stack().wake(), STATUS_SUCCESS);
    }
    expect_fresh_read(*client);
    client->close();
    expect_all_ended();
}

INSTANTIATE_TEST_SUITE_P(Stress, World, testing::ValuesIn(kWorld),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
} // namespace mvgps::test
