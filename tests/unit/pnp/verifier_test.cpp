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
        std::map<std::u16string, ULONG> parameters;
        ULONG code; // 0: none
        void (*after)(DeviceStack&);
        const char* report;
    };
    auto unload = [](DeviceStack& s) { s.unload(); };
    const std::map<std::u16string, ULONG> not_power_managed{{u"QueuePowerManaged", 0}};
    const Case cases[] = {
        {"double completion",
         {},
         IOCTL_PROBE_DOUBLE_COMPLETE,
         nullptr,
         "WDF_VIOLATION.*request completed twice"},
        {"completing a request in a queue",
         {},
         IOCTL_PROBE_COMPLETE_PARKED,
         nullptr,
         "request the driver does not own \\(it is in a queue\\)"},
        {"completing a request still marked cancelable",
         {},
         IOCTL_PROBE_COMPLETE_CANCELABLE,
         nullptr,
         "WDF_VIOLATION.*WdfRequestComplete on a request still marked cancelable"},
        {"more Information than the buffer holds",
         {},
         IOCTL_PROBE_OVERSTATE,
         nullptr,
         "WDF_VIOLATION.*Information 1 larger than the request's buffer of 0 bytes"},
        {"returning at DISPATCH_LEVEL",
         {},
         IOCTL_PROBE_RAISED_IRQL,
         nullptr,
         "callback returned at a raised IRQL: EvtIoDeviceControl"},
        {"returning with a spin lock",
         {},
         IOCTL_PROBE_SPIN_LOCK_HELD,
         nullptr,
         "callback returned holding a spin lock: EvtIoDeviceControl"},
        {"pageable queue callback presented at DISPATCH_LEVEL",
         {},
         IOCTL_PROBE_RELAY_RAISED,
         nullptr,
         "DRIVER_IRQL_NOT_LESS_OR_EQUAL.*pageable code ProbeRelayControl runs at "
         "DISPATCH_LEVEL"},
        {"false assertion",
         {},
         IOCTL_PROBE_ASSERT,
         nullptr,
         "KMODE_EXCEPTION_NOT_HANDLED.*assertion failed: IoControlCode != IOCTL_PROBE_ASSERT "
         "\\(probe_driver.cpp:"},
        {"pool leaked at unload",
         {},
         IOCTL_PROBE_LEAK_POOL,
         unload,
         "DRIVER_VERIFIER_DETECTED_VIOLATION.*without freeing 1 pool allocation"
         ".*PRBE"},
        {"image unloaded under its running thread",
         {},
         IOCTL_PROBE_START_THREAD,
         unload,
         "DRIVER_UNLOADED_WITHOUT_CANCELLING_PENDING_OPERATIONS.*system thread\\(s\\) "
         "ProbeThread still run"},
        {"request never completed: 0x9F once the watchdog gives up",
         {},
         IOCTL_PROBE_HOLD,
         [](DeviceStack& s) { s.sleep(); },
         "DRIVER_POWER_STATE_FAILURE.*cannot leave D0.*Time: +300000\\."},
        {"request never completed: removal's purge waits until the watchdog gives up",
         not_power_managed, IOCTL_PROBE_HOLD, [](DeviceStack& s) { s.remove(); },
         "queue purge waits for ever, the driver still holds 1 request"},
        {"failure path and clean-up free the same block",
         {{u"Fail", PROBE_FAIL_SELF_MANAGED_IO_INIT}, {u"DoubleFree", 1}},
         0,
         nullptr,
         "BAD_POOL_CALLER.*already freed"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_DEATH(
            {
                auto stack = make_stack(c.parameters);
                if (NT_SUCCESS(stack->bring_up()) && c.code) {
                    auto handle = open();
                    auto io = handle->ioctl_async(c.code, {}, 0);
                    if (c.after) {
                        c.after(*stack);
                    }
                }
                std::_Exit(0);
            },
            c.report);
    }
}

} // namespace
} // namespace mvgps::pnp::test
