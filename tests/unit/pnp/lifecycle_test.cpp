#include <algorithm>

#include "pnp/system.h"
#include "probe_fixture.h"

namespace mvgps::pnp::test
{
namespace
{

using Events = std::vector<std::string>;

const Events kStart = {"DriverEntry", "DeviceAdd", "PrepareHardware(2)", "D0Entry(D9)",
                       "SelfManagedIoInit"};

using LifecycleTest = ProbeTest;

TEST_F(LifecycleTest, CallbacksComeInTheFrameworksOrder)
{
    struct Step {
        const char* what;
        void (*run)(DeviceStack&);
        Events expected;
    };
    struct Scenario {
        const char* name;
        std::vector<Step> steps;
    };
    const Step sleep{"sleep",
                     [](DeviceStack& s) { EXPECT_EQ(s.sleep(), STATUS_SUCCESS); },
                     {"SelfManagedIoSuspend", "D0Exit(D3)"}};
    const Step wake{"wake",
                    [](DeviceStack& s) { EXPECT_EQ(s.wake(), STATUS_SUCCESS); },
                    {"D0Entry(D3)", "SelfManagedIoRestart"}};
    const Step remove{"remove",
                      [](DeviceStack& s) { s.unload(); },
                      {"SelfManagedIoSuspend", "D0Exit(D9)", "ReleaseHardware",
                       "SelfManagedIoFlush", "SelfManagedIoCleanup", "Unload", "DriverCleanup"}};
    const Step surprise{"surprise removal",
                        [](DeviceStack& s) { s.surprise_remove(); },
                        {"SelfManagedIoSuspend", "D0Exit(D9)", "SurpriseRemoval", "ReleaseHardware",
                         "SelfManagedIoFlush", "SelfManagedIoCleanup"}};
    const Step remove_asleep{"removal in D3",
                             [](DeviceStack& s) { s.remove(); },
                             {"ReleaseHardware", "SelfManagedIoFlush", "SelfManagedIoCleanup"}};
    const Scenario scenarios[] = {
        {"start, sleep, wake, remove", {sleep, wake, remove}},
        {"surprise removal in D0", {surprise}},
        {"removal while asleep", {sleep, remove_asleep}},
        {"two sleeps", {sleep, wake, sleep, wake, remove}},
    };
    for (const auto& scenario : scenarios) {
        SCOPED_TRACE(scenario.name);
        auto stack = make_stack({}, {uart_connection(0x100000002ULL), gpio_connection(7)});
        ASSERT_EQ(stack->bring_up(), STATUS_SUCCESS);
        EXPECT_EQ(events(), kStart);
        for (const auto& step : scenario.steps) {
            SCOPED_TRACE(step.what);
            step.run(*stack);
            EXPECT_EQ(events(), step.expected);
        }
        stack.reset();
        events();
    }
}

TEST_F(LifecycleTest, EveryLoadStartsWithFreshGlobals)
{
    auto stack = make_stack();
    for (int load = 0; load < 3; load++) {
        ASSERT_EQ(load == 0 ? stack->bring_up() : stack->enable(), STATUS_SUCCESS);
        auto handle = open();
        std::vector<std::uint8_t> loads(sizeof(ULONG));
        ASSERT_EQ(call(*handle, IOCTL_PROBE_LOADS, &loads), STATUS_SUCCESS);
        EXPECT_EQ(*reinterpret_cast<ULONG*>(loads.data()), 1u) << "load " << load;
        handle.reset();
        ASSERT_EQ(stack->disable(), STATUS_SUCCESS);
        EXPECT_FALSE(DriverImage::mapped(PROBE_DRIVER_PATH));
        EXPECT_EQ(ClientHandle::open_interface(GUID_DEVINTERFACE_PROBE, handle),
                  STATUS_OBJECT_NAME_NOT_FOUND)
            << "the interface went with the device";
    }
}

TEST_F(LifecycleTest, ChildIsReportedOnceAndForwardsToItsParent)
{
    struct Case {
        ULONG allow_forward;
        NTSTATUS through_child;
    };
    for (const Case c : {Case{1, STATUS_SUCCESS}, Case{0, STATUS_INVALID_DEVICE_REQUEST}}) {
        SCOPED_TRACE(c.allow_forward);
        auto stack = make_stack({{u"AllowForward", c.allow_forward}});
        ASSERT_EQ(stack->bring_up(), STATUS_SUCCESS);
        events();
        auto handle = open();
        ASSERT_EQ(call(*handle, IOCTL_PROBE_ADD_CHILD), STATUS_SUCCESS);
        ASSERT_TRUE(stack->wait_for_children(1, sched::current().now() + sched::kSecond));
        ASSERT_TRUE(wait_for_log("AddChild", 2));
        ASSERT_EQ(stack->children().size(), 1u);

        std::unique_ptr<ClientHandle> child;
        ASSERT_EQ(ClientHandle::open_device(stack->children()[0], child), STATUS_SUCCESS);
        std::vector<std::uint8_t> in{1, 2, 3}, out(3);
        ULONG_PTR returned = 0;
        EXPECT_EQ(child->ioctl(IOCTL_PROBE_ECHO, in, out, &returned), c.through_child);
        if (NT_SUCCESS(c.through_child)) {
            EXPECT_EQ(out, (std::vector<std::uint8_t>{3, 2, 1}));
            EXPECT_EQ(returned, 3u);
        }
        stack->unload();
        EXPECT_TRUE(stack->children().empty());
        // The PnP thread creates the child while the work item still runs, so only the
        // order of the two additions is fixed. A bus's children go before its hardware.
        Events seen;
        for (const auto& e : events()) {
            if (e.rfind("AddChild", 0) == 0 || e.find("Hardware") != std::string::npos ||
                e.rfind("CreateChild", 0) == 0 || e.rfind("D0Exit", 0) == 0) {
                seen.push_back(e);
            }
        }
        auto creation =
            seen.begin() + static_cast<std::ptrdiff_t>(std::min<std::size_t>(seen.size(), 4));
        std::stable_sort(seen.begin(), creation, [](const auto& a, const auto& b) {
            return a.rfind("AddChild", 0) == 0 && b.rfind("AddChild", 0) != 0;
        });
        EXPECT_EQ(seen, (Events{"AddChild(0x0)", "AddChild(0x40000000)", "CreateChild(4097)",
                                "ChildPrepareHardware", "ChildReleaseHardware", "D0Exit(D9)",
                                "ReleaseHardware"}));
    }
}

} // namespace
} // namespace mvgps::pnp::test
