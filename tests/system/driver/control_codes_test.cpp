// The control codes as a GPS client sends them to the bus device: results, information
// counts and outputs, the two status flags, a waiting read ended by the sleep code, the
// baud-rate follow-up, malformed records, and a raw command that is never answered.
#include <cstring>

#include "control/control.h"
#include "control/gps.h"
#include "driver_fixture.h"
#include "host/wdf/faults.h"
#include "link/codec/hci.h"
#include "sim/chip/faults.h"

namespace mvgps::test
{
namespace
{

constexpr USHORT kFenceId = 0x1234;

template <typename T>
Bytes bytes_of(const T& record)
{
    Bytes b(sizeof(T));
    std::memcpy(b.data(), &record, sizeof(T));
    return b;
}

// A fence that watches for entering only.
Bytes fence_record(USHORT length = sizeof(GEOFENCE_PAYLOAD), USHORT id = kFenceId)
{
    GPS_GEOFENCE_RECORD r{};
    r.AnswerId = id;
    r.Pid = GPS_GEOFENCE_PID;
    r.Sid = 0;
    r.Length = length;
    r.Field1 = id;
    r.Field2 = 481173000;
    r.Field3 = 115166000;
    r.Field4 = 100;
    r.Field5 = 2;
    r.Field6 = 1;
    r.Field7 = 1000;
    return bytes_of(r);
}

// A fence command (sid 4 queries) naming a fence, with its argument.
Bytes fence_query(USHORT id, USHORT length = 4, UCHAR sid = 4, UCHAR argument = 0)
{
    GPS_GEOFENCE_CMD_RECORD r{id,
                              GPS_GEOFENCE_PID,
                              sid,
                              length,
                              {static_cast<UCHAR>(id), static_cast<UCHAR>(id >> 8), argument, 0}};
    return bytes_of(r);
}

struct Call {
    const char* name;
    ULONG code;
    Bytes input;
    std::size_t out_length;
    NTSTATUS status;
    ULONG_PTR information = 0;
    Bytes output = {};
};

class ControlCodes : public ClientTest
{
  protected:
    void expect(const Call& c)
    {
        Bytes out(c.out_length);
        ULONG_PTR returned = 0;
        EXPECT_EQ(client_->ioctl(c.code, c.input, out, &returned), c.status) << c.name;
        EXPECT_EQ(returned, c.information) << c.name;
        if (!c.output.empty()) {
            EXPECT_EQ(Bytes(out.begin(), out.begin() + c.output.size()), c.output) << c.name;
        }
    }
    void expect_all(const std::vector<Call>& calls)
    {
        for (const Call& c : calls) {
            expect(c);
        }
    }
    std::shared_ptr<pnp::PendingIo> raw(ULONG code, const Bytes& record, std::size_t out = 64)
    {
        return client_->ioctl_async(code, record, out);
    }
};

TEST_F(ControlCodes, EveryCodeFromAClient)
{
    GPS_AGPS_RECORD nothing_valid{};
    expect_all({
        {"enable_nmea", IOCTL_VC_GPS_ENABLE_NMEA, {}, 0, STATUS_SUCCESS},
        {"disable_nmea", IOCTL_VC_GPS_DISABLE_NMEA, {}, 0, STATUS_SUCCESS},
        {"nmea_off", IOCTL_VC_GPS_NMEA_OFF, {}, 0, STATUS_SUCCESS},
        {"startup", IOCTL_VC_GPS_STARTUP, {}, 0, STATUS_SUCCESS},
        {"agps_empty", IOCTL_VC_GPS_AGPS_DATA, {}, 0, STATUS_SUCCESS},
        {"agps_nothing_valid", IOCTL_VC_GPS_AGPS_DATA, bytes_of(nothing_valid), 0, STATUS_SUCCESS},
        {"feature_off", IOCTL_VC_GPS_FEATURE_OFF, {}, 0, STATUS_SUCCESS},
        {"geofence_add", IOCTL_VC_GPS_GEOFENCE_SET, fence_record(), 0, STATUS_SUCCESS},
        {"geofence_add_again", IOCTL_VC_GPS_GEOFENCE_SET, fence_record(), 0, STATUS_UNSUCCESSFUL},
        {"geofence_query", IOCTL_VC_GPS_GEOFENCE_CMD, fence_query(kFenceId), 0, STATUS_SUCCESS},
        {"geofence_query_unknown", IOCTL_VC_GPS_GEOFENCE_CMD, fence_query(0x9999), 0,
         STATUS_UNSUCCESSFUL},
        {"geofence_empty", IOCTL_VC_GPS_GEOFENCE_SET, {}, 0, STATUS_SUCCESS},
        {"raw_empty", IOCTL_VC_SET_LOG_GPS_SENDCMD, {}, 0, STATUS_SUCCESS},
        {"raw_ack_empty", IOCTL_VC_GPS_SENDCMD_ACK, {}, 0, STATUS_SUCCESS},
    });
    EXPECT_EQ(chip().state().geofences.size(), 1u);
    EXPECT_EQ(count("-FdoIoQuDeviceControl"), 9u) << "geofence codes log no end";
}

TEST_F(ControlCodes, DownloadFlagFallsOnceAndSleepStatusFollowsSleepAndWake)
{
    const Bytes asleep{1, 0, 0, 0}, awake{0, 0, 0, 0};
    expect_all({
        {"sleep", IOCTL_VC_GPS_SLEEP, {}, 0, STATUS_SUCCESS},
        {"sleep_again", IOCTL_VC_GPS_SLEEP, {}, 0, STATUS_SUCCESS},
        {"asleep", IOCTL_VC_GPS_GET_SLEEP_STATUS, {}, 4, STATUS_SUCCESS, 1, asleep},
        {"still_one", IOCTL_VC_GPS_GET_DOWNLOAD_FLAG, {}, 1, STATUS_SUCCESS, 1, {1}},
        {"wake", IOCTL_VC_GPS_WAKEUP, {}, 0, STATUS_SUCCESS},
        {"awake", IOCTL_VC_GPS_GET_SLEEP_STATUS, {}, 4, STATUS_SUCCESS, 1, awake},
        {"fallen", IOCTL_VC_GPS_GET_DOWNLOAD_FLAG, {}, 1, STATUS_SUCCESS, 1, {0}},
        {"wake_again", IOCTL_VC_GPS_WAKEUP, {}, 0, STATUS_SUCCESS},
        {"stays_fallen", IOCTL_VC_GPS_GET_DOWNLOAD_FLAG, {}, 1, STATUS_SUCCESS, 1, {0}},
    });
    EXPECT_EQ(count("sleep Suceed!"), 1u);
    EXPECT_EQ(count("wakeup Suceed!"), 2u);
    // Each wake-up re-ran the chip's start-up.
    EXPECT_GE(chip_heard(HCI_PID_NMEA, 2), 3u); // resends count too in real time
}

// A silent chip: reads take what is still queued until one waits; the sleep code ends it.
TEST_F(ControlCodes, SleepCodeCancelsAWaitingRead)
{
    chip().set_power(false);
    std::shared_ptr<pnp::PendingIo> waiting;
    for (int i = 0; i < 10 && (!waiting || waiting->done()); i++) {
        waiting = raw(IOCTL_VC_GPS_START_READ, {}, 512);
        run_for(50 * kMillisecond);
    }
    ASSERT_FALSE(waiting->done());
    expect({"sleep", IOCTL_VC_GPS_SLEEP, {}, 0, STATUS_SUCCESS});
    ASSERT_TRUE(waiting->wait(sched::current().now() + 5 * kSecond));
    EXPECT_EQ(waiting->status(), STATUS_CANCELLED);
}

// Only the rate command (sid 0) moves the line; another sid of the same pid leaves it.
TEST_F(ControlCodes, BaudRateFollowsOnlyTheRateCommand)
{
    auto pending =
        raw(IOCTL_VC_SET_LOG_GPS_SENDCMD, command(GPS_COMMAND_PID_BAUD_RATE, 1, le32(115200)));
    ASSERT_TRUE(wait_until([&] { return logged("send CMD OK!"); }));
    run_for(200 * kMillisecond);
    EXPECT_FALSE(logged("change_baudrate to 115200")) << log();
    EXPECT_EQ(uart().settings().rate, 921600u);
    pending->cancel();
    ASSERT_TRUE(pending->wait(sched::current().now() + 5 * kSecond));
}

TEST_F(ControlCodes, FailedRawSendsAndUnknownCodes)
{
    wdf::faults::add(wdf::faults::fail_nth_send(1, wdf::faults::Op::Write));
    expect({"no_ack_send_fails", IOCTL_VC_SET_LOG_GPS_SENDCMD, command(0x22, 5, {0}), 64,
            STATUS_UNSUCCESSFUL});
    EXPECT_TRUE(logged("send CMD Wrong!"));
    EXPECT_EQ(ext().CMD_Request, nullptr);
    wdf::faults::add(wdf::faults::fail_nth_send(1, wdf::faults::Op::Write));
    expect({"ack_send_fails", IOCTL_VC_GPS_SENDCMD_ACK, command(0x22, 5, {0}), 64, STATUS_SUCCESS});
    EXPECT_EQ(ext().CMD_Request, nullptr);
    wdf::faults::clear();

    for (ULONG code : {0x222864u, 0x22286Cu, 0x222870u, 0x222800u}) {
        expect({"unknown", code, {}, 0, STATUS_NOT_SUPPORTED});
    }
    EXPECT_TRUE(logged_in_order({" IOCTL_(0x222864, Func 2585)", " IOCTL_(0x22286c, Func 2587)",
                                 " IOCTL_(0x222870, Func 2588)", " IOCTL_(0x222800, Func 2560)"}))
        << log();
}

TEST_F(ControlCodes, MalformedRecordsAreRefusedUnsent)
{
    Bytes short_payload = command(0x22, 5, {0, 0, 0});
    short_payload.pop_back();
    Bytes fence_short = fence_record();
    fence_short.pop_back();
    Bytes query_short = fence_query(kFenceId);
    query_short.pop_back();
    const std::uint64_t heard = chip().stats().frames_received;
    expect_all({
        {"raw_header_cut",
         IOCTL_VC_SET_LOG_GPS_SENDCMD,
         {0xA5, 0, 7, 0x22, 5},
         64,
         STATUS_INVALID_PARAMETER},
        {"raw_payload_cut", IOCTL_VC_SET_LOG_GPS_SENDCMD, short_payload, 64,
         STATUS_INVALID_PARAMETER},
        {"ack_payload_cut", IOCTL_VC_GPS_SENDCMD_ACK, short_payload, 64, STATUS_INVALID_PARAMETER},
        {"agps_cut", IOCTL_VC_GPS_AGPS_DATA, Bytes(sizeof(GPS_AGPS_RECORD) - 1), 0,
         STATUS_INVALID_PARAMETER},
        {"fence_cut", IOCTL_VC_GPS_GEOFENCE_SET, fence_short, 0, STATUS_INVALID_PARAMETER},
        {"fence_too_long", IOCTL_VC_GPS_GEOFENCE_SET, fence_record(37), 0,
         STATUS_INVALID_PARAMETER},
        {"query_cut", IOCTL_VC_GPS_GEOFENCE_CMD, query_short, 0, STATUS_INVALID_PARAMETER},
        {"query_too_long", IOCTL_VC_GPS_GEOFENCE_CMD, fence_query(kFenceId, 5), 0,
         STATUS_INVALID_PARAMETER},
        {"download_flag_no_room", IOCTL_VC_GPS_GET_DOWNLOAD_FLAG, {}, 0, STATUS_BUFFER_TOO_SMALL},
        {"sleep_status_no_room", IOCTL_VC_GPS_GET_SLEEP_STATUS, {}, 3, STATUS_BUFFER_TOO_SMALL},
    });
    EXPECT_EQ(chip().stats().frames_received, heard);
    EXPECT_EQ(ext().CMD_Request, nullptr);
    EXPECT_EQ(count("Failed to get output buffer"), 2u);
}

// The chip's table decides each answer, and the log names it: statuses 3 and 4 give their
// results crossed over, and a status the table never gives is forced last. Records the chip
// cannot take are refused unsent; an answer about another fence is a failure.
TEST_F(ControlCodes, GeofenceAnswersFollowTheChipsTable)
{
    Bytes other_pid = fence_record(), other_sid = fence_record(), other_answer = fence_record();
    other_pid[2] = 0x31;
    other_sid[3] = GPS_GEOFENCE_SID_LIMIT;
    other_answer[0]++; // the chip names the record's fence, not this one
    struct Step {
        const char* name;
        ULONG code;
        Bytes input;
        NTSTATUS status;
        const char* text;
    };
    std::vector<Step> steps = {
        {"pid_0x31", IOCTL_VC_GPS_GEOFENCE_SET, other_pid, STATUS_UNSUCCESSFUL, nullptr},
        {"sid_7", IOCTL_VC_GPS_GEOFENCE_SET, other_sid, STATUS_UNSUCCESSFUL, nullptr},
        {"answer_about_another", IOCTL_VC_GPS_GEOFENCE_SET, other_answer, STATUS_UNSUCCESSFUL,
         nullptr},
        {"report_unmonitored", IOCTL_VC_GPS_GEOFENCE_CMD, fence_query(kFenceId, 4, 6, 2),
         STATUS_UNSUCCESSFUL, "invalid transition"},
        {"pause", IOCTL_VC_GPS_GEOFENCE_CMD, fence_query(kFenceId, 4, 2), STATUS_SUCCESS,
         "operation success"},
        {"pause_paused", IOCTL_VC_GPS_GEOFENCE_CMD, fence_query(kFenceId, 4, 2),
         STATUS_UNSUCCESSFUL, "generic errors"},
    };
    for (USHORT id = 1; id < 8; id++) {
        steps.push_back({"fill", IOCTL_VC_GPS_GEOFENCE_SET,
                         fence_record(sizeof(GEOFENCE_PAYLOAD), id), STATUS_SUCCESS,
                         "operation success"});
    }
    steps.push_back({"one_too_many", IOCTL_VC_GPS_GEOFENCE_SET,
                     fence_record(sizeof(GEOFENCE_PAYLOAD), 8), STATUS_UNSUCCESSFUL,
                     "too many geofences"});
    for (const Step& step : steps) {
        SCOPED_TRACE(step.name);
        kernel::clear_debug_output();
        expect({step.name, step.code, step.input, 0, step.status});
        if (step.text != nullptr) {
            EXPECT_TRUE(logged(step.text));
        }
    }
    EXPECT_EQ(chip_received(GPS_GEOFENCE_PID).size(), steps.size() - 2);
    EXPECT_TRUE(chip_received(0x31).empty());
    EXPECT_EQ(chip().state().geofences.size(), 8u);

    chip().set_geofence_status(9);
    expect({"status_9", IOCTL_VC_GPS_GEOFENCE_CMD, fence_query(kFenceId), 0, STATUS_UNSUCCESSFUL});
    EXPECT_TRUE(logged("unknown status"));
}

// A raw command the chip never answers, held as the dispatcher first held it, not cancelable:
// the queue's stop callback can neither let the sleep proceed nor end the request, so the
// sleep waits for the chip's answer until the power watchdog stops the system. As the
// driver holds it (cancelable), the same sleep proceeds: the stress suite's sleep with an
// unanswered command.
TEST_F(ControlCodes, UncancelableUnansweredRawCommandStopsTheSleep)
{
    if (!simulated()) {
        GTEST_SKIP() << "the power watchdog runs out in simulated time";
    }
    EXPECT_DEATH(
        {
            chip().inject(sim::chip::Fault::no_ack(1, 0x22, 5));
            auto pending = raw(IOCTL_VC_SET_LOG_GPS_SENDCMD, command(0x22, 5, {0}));
            (void)wait_until([&] { return logged("send CMD OK!"); });
            (void)WdfRequestUnmarkCancelable(ext().CMD_Request);
            (void)stack().sleep(PowerDeviceD3);
            std::_Exit(0);
        },
        "DRIVER_POWER_STATE_FAILURE.*cannot leave D0");
}

} // namespace
} // namespace mvgps::test
