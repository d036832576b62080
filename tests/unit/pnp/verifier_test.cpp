#include "probe_fixture.h"

namespace mvgps::pnp::test
{
namespace
{

using VerifierDeathTest = ProbeTest;

TEST_F(VerifierDeathTest, DriverMistakesStopTheRunWithTheirRule)
{
    struct Case {
        const char* name;
        ULONG queue_power_managed;
        ULONG code;
        void (*after)(DeviceStack&);
        const char* report;
    };
    const Case cases[] = {
        {"double completion", 1, IOCTL_PROBE_DOUBLE_COMPLETE, nullptr,
         "WDF_VIOLATION.*request completed twice"},
        {"completing a request in a queue", 1, IOCTL_PROBE_COMPLETE_PARKED, nullptr,
         "request the driver does not own \\(it is in a queue\\)"},
        {"returning at DISPATCH_LEVEL", 1, IOCTL_PROBE_RAISED_IRQL, nullptr,
         "callback returned at a raised IRQL: EvtIoDeviceControl"},
        {"returning with a spin lock", 1, IOCTL_PROBE_SPIN_LOCK_HELD, nullptr,
         "callback returned holding a spin lock: EvtIoDeviceControl"},
        {"pool leaked at unload", 1, IOCTL_PROBE_LEAK_POOL, [](DeviceStack& s) { s.unload(); },
         "DRIVER_VERIFIER_DETECTED_VIOLATION.*without freeing 1 pool allocation"
         ".*PRBE"},
        {"request never completed: 0x9F once the watchdog gives up", 1, IOCTL_PROBE_HOLD,
         [](DeviceStack& s) { s.sleep(); },
         "DRIVER_POWER_STATE_FAILURE.*cannot leave D0.*Time: +300000\\."},
        {"request leaked at removal", 0, IOCTL_PROBE_HOLD, [](DeviceStack& s) { s.remove(); },
         "removed while the driver still holds 1 request"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_DEATH(
            {
                auto stack = make_stack({{u"QueuePowerManaged", c.queue_power_managed}});
                stack->bring_up();
                auto handle = open();
                auto io = handle->ioctl_async(c.code, {}, 0);
                if (c.after) {
                    c.after(*stack);
                }
                std::_Exit(0);
            },
            c.report);
    }
}

} // namespace
} // namespace mvgps::pnp::test
