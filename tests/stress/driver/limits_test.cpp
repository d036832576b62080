// Limits of the design, shown and measured (docs/limits.md): one raw-command answer awaited
// at a time, and how long reading lasts while the chip streams NMEA.
#include <cstdio>
#include <cstdlib>

#include "control/control.h"
#include "control/gps.h"
#include "sim/chip/faults.h"
#include "stress.h"

namespace mvgps::test
{
namespace
{

class Limits : public StressTest
{
};

// A second raw command takes the one answer slot: it gets its answer, and the first, whose
// answer never comes, stays pending until its client cancels it.
TEST_F(Limits, SecondRawCommandTakesTheAnswerSlot)
{
    start_running();
    std::unique_ptr<pnp::ClientHandle> client = open_parent();
    chip().inject(sim::chip::Fault::no_ack(1, 0x22, 1));
    auto first = send(*client, IOCTL_VC_SET_LOG_GPS_SENDCMD, command(0x22, 1, {0}));
    ASSERT_TRUE(wait_until([&] { return logged("send CMD OK!"); }));
    auto second =
        send(*client, IOCTL_VC_SET_LOG_GPS_SENDCMD, command(0x22, GPS_SID_OUTPUT_OPTION, {0}));
    ASSERT_TRUE(second->wait(sched::current().now() + 2 * kSecond));
    EXPECT_EQ(second->status(), STATUS_SUCCESS);
    EXPECT_EQ(second->output()[4], GPS_SID_OUTPUT_OPTION);
    run_for(2 * kSecond);
    EXPECT_FALSE(first->done());
    first->cancel();
    ASSERT_TRUE(first->wait(sched::current().now() + kSecond));
    EXPECT_EQ(first->status(), STATUS_CANCELLED);
}

// A measurement rather than a check: with NMEA output on at MVGPS_RATE bit/s (default
// 921600) and a client keeping one read pending, how long until reading ends, and how many
// of the chip's sentences the client got. Run over seeds:
//   MVGPS_SEED=n stress_test --gtest_also_run_disabled_tests --gtest_filter='*ReadingLasts*'
TEST_F(Limits, DISABLED_ReadingLasts)
{
    const char* env = std::getenv("MVGPS_RATE");
    const std::uint32_t rate = env != nullptr ? std::strtoul(env, nullptr, 10) : 921600;
    start_running();
    std::unique_ptr<pnp::ClientHandle> client = open_parent();
    if (rate != 921600) {
        send(*client, IOCTL_VC_SET_LOG_GPS_SENDCMD, rate_record(rate));
        ASSERT_TRUE(wait_until([&] { return logged("change_baudrate to"); }));
    }
    ASSERT_EQ(client->ioctl(IOCTL_VC_GPS_ENABLE_NMEA, {}, {}), STATUS_SUCCESS);
    kernel::clear_debug_output();
    const sched::Nanos start = sched::current().now();
    const std::uint64_t sent_before = chip().stats().nmea_sent;
    std::uint64_t got = 0;
    auto read = client->ioctl_async(IOCTL_VC_GPS_START_READ, {}, 512);
    while (sched::current().now() - start < 600 * kSecond && !reading_ended()) {
        run_for(50 * kMillisecond);
        if (read->done()) {
            got++;
            read = client->ioctl_async(IOCTL_VC_GPS_START_READ, {}, 512);
        }
    }
    std::printf("rate %u: reading lasted %.1f s; the client got %llu of %llu sentences\n", rate,
                static_cast<double>(sched::current().now() - start) / kSecond,
                static_cast<unsigned long long>(got),
                static_cast<unsigned long long>(chip().stats().nmea_sent - sent_before));
    client->close();
}

} // namespace
} // namespace mvgps::test
