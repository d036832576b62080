// Failure walks: for the start-up, a wake and each control code, the n-th pool allocation,
// framework object creation, request send or serial control call fails, for n = 1, 2, ...
// until a run makes fewer calls than n. Every run ends clean: the step ends with a status,
// every request ends, the device either still reads or was removed, and the unload after
// it finds nothing left behind. A whole walk takes a few seconds of the suite.
#include <cstring>

#include "control/control.h"
#include "control/gps.h"
#include "host/wdf/faults.h"
#include "stress.h"

namespace mvgps::test
{
namespace
{

// No step makes this many calls of one kind; a walk that gets here has run away.
constexpr std::uint64_t kWalkLimit = 1000;

template <typename T>
Bytes bytes_of(const T& record)
{
    Bytes b(sizeof(T));
    std::memcpy(b.data(), &record, sizeof(T));
    return b;
}

Bytes fence_record()
{
    GPS_GEOFENCE_RECORD r{};
    r.AnswerId = 0x1234;
    r.Pid = GPS_GEOFENCE_PID;
    r.Length = sizeof(GEOFENCE_PAYLOAD);
    r.Field1 = 0x1234;
    r.Field4 = 100;
    return bytes_of(r);
}

Bytes fence_query()
{
    return bytes_of(GPS_GEOFENCE_CMD_RECORD{0x1234, GPS_GEOFENCE_PID, 4, 4, {0x34, 0x12, 0, 0}});
}

Bytes agps_record()
{
    GPS_AGPS_RECORD r{};
    r.Valid = 1;
    r.SlotFlags[0] = 1;
    return bytes_of(r);
}

struct Step {
    const char* name;
    ULONG code; // 0: the start-up; 1: a wake
    Bytes input = {};
    std::size_t out = 0;
};

const Step kSteps[] = {
    {"StartUp", 0},
    {"Wake", 1},
    {"Wakeup", IOCTL_VC_GPS_WAKEUP},
    {"StartRead", IOCTL_VC_GPS_START_READ, {}, 512},
    {"Sleep", IOCTL_VC_GPS_SLEEP},
    {"EnableNmea", IOCTL_VC_GPS_ENABLE_NMEA},
    {"DisableNmea", IOCTL_VC_GPS_DISABLE_NMEA},
    {"NmeaOff", IOCTL_VC_GPS_NMEA_OFF},
    {"ColdStart", IOCTL_VC_GPS_STARTUP},
    {"Assistance", IOCTL_VC_GPS_AGPS_DATA, agps_record()},
    {"DownloadFlag", IOCTL_VC_GPS_GET_DOWNLOAD_FLAG, {}, 1},
    {"RawWithAck", IOCTL_VC_GPS_SENDCMD_ACK, command(0x22, GPS_SID_OUTPUT_OPTION, {0}), 64},
    {"GeofenceSet", IOCTL_VC_GPS_GEOFENCE_SET, fence_record()},
    {"Raw", IOCTL_VC_SET_LOG_GPS_SENDCMD, command(0x22, GPS_SID_OUTPUT_OPTION, {0}), 64},
    {"FeatureOff", IOCTL_VC_GPS_FEATURE_OFF},
    {"GeofenceCmd", IOCTL_VC_GPS_GEOFENCE_CMD, fence_query()},
    {"SleepStatus", IOCTL_VC_GPS_GET_SLEEP_STATUS, {}, 4},
};

struct Site {
    const char* name;
    verifier::FaultRule (*nth)(std::uint64_t n);
};

const Site kSites[] = {
    {"Allocation", [](std::uint64_t n) { return kernel::fail_nth(n); }},
    {"Object", [](std::uint64_t n) { return wdf::faults::fail_nth_create(n); }},
    {"Send", [](std::uint64_t n) { return wdf::faults::fail_nth_send(n); }},
    {"SerialControl",
     [](std::uint64_t n) { return wdf::faults::fail_nth_send(n, wdf::faults::Op::Control); }},
};

class Walk : public StressTest, public testing::WithParamInterface<std::tuple<Step, Site>>
{
  protected:
    // One run with the n-th call failing; whether that call was reached.
    bool run(const Step& step, const verifier::FaultRule& rule)
    {
        const bool fired = step.code == 0 ? start_up(rule) : running(step, rule);
        if (stack().fdo() != nullptr) {
            expect_working(false);
        }
        remove();
        return fired;
    }

  private:
    static bool disarm()
    {
        const bool fired = verifier::faults_fired() > 0;
        wdf::faults::clear();
        return fired;
    }

    // Building the simulated world makes none of these calls; the driver's start makes all.
    bool start_up(const verifier::FaultRule& rule)
    {
        wdf::faults::add(rule);
        const NTSTATUS status = start();
        const bool fired = disarm();
        if (NT_SUCCESS(status)) {
            stack().wait_for_children(1, sched::current().now() + kSecond);
        }
        return fired;
    }

    bool running(const Step& step, const verifier::FaultRule& rule)
    {
        start_running();
        std::unique_ptr<pnp::ClientHandle> client = open_parent();
        if (step.code == 1) {
            EXPECT_EQ(stack().sleep(PowerDeviceD3), STATUS_SUCCESS);
            wdf::faults::add(rule);
            stack().wake();
            client->close();
            return disarm();
        }
        wdf::faults::add(rule);
        auto io = send(*client, step.code, step.input, step.out);
        if (!io->wait(sched::current().now() + 10 * kSecond)) {
            io->cancel();
        }
        const bool fired = disarm();
        client->close();
        expect_all_ended();
        return fired;
    }
};

TEST_P(Walk, EveryFailureEndsClean)
{
    const auto& [step, site] = GetParam();
    std::uint64_t n = 1;
    while (n < kWalkLimit && run(step, site.nth(n)) && !HasFailure()) {
        n++;
    }
    EXPECT_FALSE(HasFailure()) << "with call " << n << " failing";
    EXPECT_LT(n, kWalkLimit);
    // The start-up makes calls of every kind: a walk of it that fails none has lost count.
    if (step.code == 0) {
        EXPECT_GT(n, 1u) << "no call of this kind was reached";
    }
}

INSTANTIATE_TEST_SUITE_P(Stress, Walk,
                         testing::Combine(testing::ValuesIn(kSteps), testing::ValuesIn(kSites)),
                         [](const auto& info) {
                             return std::string(std::get<0>(info.param).name) + "_" +
                                    std::get<1>(info.param).name;
                         });

} // namespace
} // namespace mvgps::test
