// Device fundamentals: what the PnP and power managers and several clients do to a device,
// at points drawn from the seed. Every request a scenario sends ends with a status, the
// device still delivers fresh frames afterwards unless the scenario removed it, and the
// fixture's unload stops the run on anything left behind.
#include "control/control.h"
#include "control/gps.h"
#include "host/pnp/system.h"
#include "host/wdf/faults.h"
#include "sim/chip/faults.h"
#include "stress.h"

namespace mvgps::test
{
namespace
{

using sim::chip::Fault;
using Handle = std::unique_ptr<pnp::ClientHandle>;

const Bytes kOutputOption = command(0x22, GPS_SID_OUTPUT_OPTION, {0});

class Fundamentals;

struct Scenario {
    const char* name;
    void (Fundamentals::*run)();
    bool removes; // the device is gone at the end
};

void PrintTo(const Scenario& s, std::ostream* os)
{
    *os << s.name;
}

class Fundamentals : public StressTest, public testing::WithParamInterface<Scenario>
{
  public:
    // PnP
    void disable_enable_idle()
    {
        ASSERT_EQ(stack().disable(), STATUS_SUCCESS);
        enable();
    }

    void disable_enable_with_clients()
    {
        Handle parent = open_parent(), child = open_child();
        chip().inject(Fault::no_ack(1, 0x22, GPS_SID_OUTPUT_OPTION));
        send(*parent, IOCTL_VC_SET_LOG_GPS_SENDCMD, kOutputOption);
        send_reads(*parent, *child);
        run_for(pick(0, 100 * kMillisecond));
        stack().disable();
        parent->close();
        child->close();
        expect_all_ended();
        enable();
    }

    void surprise_during_start_up()
    {
        const bool vanishes = coin();
        NTSTATUS started = STATUS_PENDING;
        after(0, [&] { started = start(); });
        ASSERT_TRUE(wait_until([&] { return built(); }));
        run_for(pick(0, 150 * kMillisecond));
        surprise(vanishes);
        join_all();
        EXPECT_NE(started, STATUS_PENDING);
    }

    void surprise_during_command()
    {
        Handle parent = open_parent(), child = open_child();
        if (coin()) {
            chip().inject(Fault::late_ack(1, pick(0, 40 * kMillisecond)));
        }
        send(*parent, IOCTL_VC_GPS_SENDCMD_ACK, kOutputOption);
        send(*child, IOCTL_VC_SET_LOG_GPS_SENDCMD, kOutputOption);
        run_for(pick(0, 30 * kMillisecond));
        surprise(coin());
    }

    void surprise_during_baud_switch()
    {
        Handle parent = open_parent();
        send(*parent, IOCTL_VC_SET_LOG_GPS_SENDCMD, rate_record(115200));
        send_reads(*parent, *parent);
        run_for(pick(0, 80 * kMillisecond));
        surprise(coin());
    }

    void surprise_during_sleep_and_wake()
    {
        Handle parent = open_parent();
        send_reads(*parent, *parent);
        after(0, [this] {
            stack().sleep(PowerDeviceD3);
            stack().wake();
        });
        run_for(pick(0, 250 * kMillisecond));
        surprise(coin());
    }

    void removal_with_every_request_pending()
    {
        Handle parent = open_parent(), child = open_child();
        chip().inject(Fault::no_ack(2, 0x22));
        send(*parent, IOCTL_VC_SET_LOG_GPS_SENDCMD, command(0x22, 1, {0}));
        send(*child, IOCTL_VC_GPS_SENDCMD_ACK, command(0x22, 2, {0}));
        send(*parent, IOCTL_VC_SET_LOG_GPS_SENDCMD, rate_record(460800));
        send(*child, IOCTL_VC_GPS_WAKEUP);
        send(*parent, IOCTL_VC_GPS_STARTUP);
        chip().set_power(false);
        send_reads(*parent, *child);
        run_for(pick(0, 50 * kMillisecond));
        if (coin()) {
            stack().surprise_remove();
        }
        remove();
    }

    // Power
    void sleep_and_wake_while_streaming()
    {
        Handle parent = open_parent(), child = open_child();
        ASSERT_EQ(parent->ioctl(IOCTL_VC_GPS_ENABLE_NMEA, {}, {}), STATUS_SUCCESS);
        for (sched::Nanos cycles = pick(2, 6); cycles > 0; cycles--) {
            send_reads(*parent, *child);
            run_for(pick(0, 1500 * kMillisecond));
            ASSERT_EQ(stack().sleep(PowerDeviceD3), STATUS_SUCCESS);
            run_for(pick(0, 100 * kMillisecond));
            ASSERT_EQ(stack().wake(), STATUS_SUCCESS);
        }
        expect_all_ended();
    }

    // Until the next wake the device reads nothing; that wake sets the line up again.
    void wake_with_refused_line_setup()
    {
        const ULONG refused[] = {IOCTL_SERIAL_SET_BAUD_RATE, IOCTL_SERIAL_SET_LINE_CONTROL,
                                 IOCTL_SERIAL_SET_HANDFLOW};
        ASSERT_EQ(stack().sleep(PowerDeviceD3), STATUS_SUCCESS);
        wdf::faults::add(wdf::faults::fail_control(refused[pick(0, 2)]));
        ASSERT_EQ(stack().wake(), STATUS_SUCCESS);
        wdf::faults::clear();
        EXPECT_EQ(ext().ReadThread, nullptr);
        ASSERT_EQ(stack().sleep(PowerDeviceD3), STATUS_SUCCESS);
        ASSERT_EQ(stack().wake(), STATUS_SUCCESS);
    }

    // The held command never stops sleep (no 0x9F); its client's cancel ends it later.
    void sleep_with_an_unanswered_command()
    {
        Handle parent = open_parent();
        chip().inject(Fault::no_ack(1, 0x22, GPS_SID_OUTPUT_OPTION));
        auto held = send(*parent, IOCTL_VC_SET_LOG_GPS_SENDCMD, kOutputOption);
        run_for(pick(0, 50 * kMillisecond));
        ASSERT_EQ(stack().sleep(PowerDeviceD3), STATUS_SUCCESS);
        run_for(pick(0, kSecond));
        ASSERT_EQ(stack().wake(), STATUS_SUCCESS);
        if (coin()) {
            held->cancel();
        } else {
            parent->close();
        }
        expect_all_ended();
    }

    // I/O: each client draws its own steps, all at once.
    void clients_at_once()
    {
        const int clients = static_cast<int>(pick(2, 4));
        for (int c = 0; c < clients; c++) {
            after(pick(0, 20 * kMillisecond), [this] { client_steps(); });
        }
        join_all();
        expect_all_ended();
        // Switches at once can leave chip and driver at different rates (docs/limits.md): once
        // the commands still on the wire have reached the chip, a command naming the chip's
        // rate brings the driver to it, and a switch made together takes both back to 921600
        // (a wake's rate) and starts a new read thread where one at 460800 bit/s had ended.
        sched::current().sleep_until(sched::current().now() + 50 * kMillisecond, "wire drains");
        Handle h = open_parent();
        for (const std::uint32_t rate : {chip().rate(), 921600u}) {
            const std::size_t switches = count("change_baudrate to");
            send(*h, IOCTL_VC_SET_LOG_GPS_SENDCMD, rate_record(rate));
            ASSERT_TRUE(wait_until([&] { return count("change_baudrate to") > switches; }));
            ASSERT_TRUE(wait_until([&] { return chip().rate() == rate; }))
                << rate << " chip " << chip().rate() << " uart " << uart().settings().rate;
            EXPECT_EQ(uart().settings().rate, rate);
        }
        h->close();
    }

  private:
    void enable()
    {
        ASSERT_EQ(stack().enable(), STATUS_SUCCESS);
        ASSERT_TRUE(stack().wait_for_children(1, sched::current().now() + kSecond));
    }

    void send_reads(pnp::ClientHandle& a, pnp::ClientHandle& b)
    {
        for (sched::Nanos n = pick(1, 3); n > 0; n--) {
            send(coin() ? a : b, IOCTL_VC_GPS_START_READ, {}, coin(0.2) ? 8 : 512);
        }
    }

    // The hardware may go first (the UART with it); the PnP manager's notice follows.
    void surprise(bool hardware_gone)
    {
        if (hardware_gone) {
            chip().set_power(false);
            io::remove(pnp::resource_hub_path(kUartId));
        }
        stack().surprise_remove();
    }

    void client_steps()
    {
        Handle h = coin() ? open_parent() : open_child();
        std::vector<std::shared_ptr<pnp::PendingIo>> mine;
        for (sched::Nanos steps = pick(3, 12); steps > 0; steps--) {
            switch (pick(0, 6)) {
            case 0:
            case 1:
                mine.push_back(send(*h, IOCTL_VC_GPS_START_READ, {}, 512));
                break;
            case 2:
                mine.push_back(send(*h, IOCTL_VC_GPS_SENDCMD_ACK, kOutputOption));
                break;
            case 3:
                mine.push_back(send(*h, IOCTL_VC_SET_LOG_GPS_SENDCMD, kOutputOption));
                break;
            case 4: {
                // At 115200 bit/s an NMEA epoch can end reading (docs/limits.md).
                const std::uint32_t rate = coin() ? 460800 : 921600;
                mine.push_back(send(*h, IOCTL_VC_SET_LOG_GPS_SENDCMD, rate_record(rate)));
                break;
            }
            case 5:
                if (!mine.empty()) {
                    mine[pick(0, static_cast<sched::Nanos>(mine.size()) - 1)]->cancel();
                }
                break;
            default:
                h->close();
                h = coin() ? open_parent() : open_child();
                break;
            }
            run_for(pick(0, 60 * kMillisecond));
        }
        h->close();
    }
};

const Scenario kScenarios[] = {
    {"DisableEnableIdle", &Fundamentals::disable_enable_idle, false},
    {"DisableEnableWithClients", &Fundamentals::disable_enable_with_clients, false},
    {"SurpriseDuringStartUp", &Fundamentals::surprise_during_start_up, true},
    {"SurpriseDuringCommand", &Fundamentals::surprise_during_command, true},
    {"SurpriseDuringBaudSwitch", &Fundamentals::surprise_during_baud_switch, true},
    {"SurpriseDuringSleepAndWake", &Fundamentals::surprise_during_sleep_and_wake, true},
    {"RemovalWithEveryRequestPending", &Fundamentals::removal_with_every_request_pending, true},
    {"SleepAndWakeWhileStreaming", &Fundamentals::sleep_and_wake_while_streaming, false},
    {"WakeWithRefusedLineSetup", &Fundamentals::wake_with_refused_line_setup, false},
    {"SleepWithAnUnansweredCommand", &Fundamentals::sleep_with_an_unanswered_command, false},
    {"ClientsAtOnce", &Fundamentals::clients_at_once, false},
};

TEST_P(Fundamentals, EndsCleanAndWorking)
{
    const Scenario& s = GetParam();
    if (s.run != &Fundamentals::surprise_during_start_up) {
        start_running();
    }
    (this->*s.run)();
    join_all();
    expect_all_ended();
    if (!s.removes) {
        expect_working();
    }
    remove();
}

INSTANTIATE_TEST_SUITE_P(Stress, Fundamentals, testing::ValuesIn(kScenarios),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
} // namespace mvgps::test
