#include <algorithm>

#include "probe_fixture.h"

namespace mvgps::pnp::test
{
namespace
{

using LifecycleTest = ProbeTest;

TEST_F(LifecycleTest, CallbacksComeInTheFrameworksOrder)
{
    struct Step {
        void (*run)(DeviceStack&);
        Events expected;
    };
    const Step sleep{[](DeviceStack& s) { EXPECT_EQ(s.sleep(), STATUS_SUCCESS); }, {"D0Exit(D3)"}};
    const Step wake{[](DeviceStack& s) { EXPECT_EQ(s.wake(), STATUS_SUCCESS); },
                    {"D0Entry(D3)", "SelfManagedIoRestart"}};
    const Step remove{[](DeviceStack& s) { s.unload(); },
                      {"D0Exit(D9)", "ReleaseHardware", "SelfManagedIoCleanup", "DriverCleanup"}};
    const Step surprise{
        [](DeviceStack& s) { s.surprise_remove(); },
        {"D0Exit(D9)", "SurpriseRemoval", "ReleaseHardware", "SelfManagedIoCleanup"}};
    const Step remove_asleep{[](DeviceStack& s) { s.remove(); },
                             {"ReleaseHardware", "SelfManagedIoCleanup"}};
    const struct {
        const char* name;
        std::vector<Step> steps;
    } scenarios[] = {
        {"sleep, wake twice, remove", {sleep, wake, sleep, wake, remove}},
        {"surprise removal in D0", {surprise}},
        {"removal while asleep", {sleep, remove_asleep}},
    };
    for (const auto& scenario : scenarios) {
        SCOPED_TRACE(scenario.name);
        auto stack = make_stack();
        ASSERT_EQ(stack->bring_up(), STATUS_SUCCESS);
        EXPECT_EQ(events(), (Events{"DriverEntry", "DeviceAdd", "PrepareHardware", "D0Entry(D9)",
                                    "SelfManagedIoInit"}));
        for (std::size_t i = 0; i < scenario.steps.size(); i++) {
            SCOPED_TRACE(i);
            scenario.steps[i].run(*stack);
            EXPECT_EQ(events(), scenario.steps[i].expected);
        }
        stack.reset();
        events();
    }
}

TEST_F(LifecycleTest, EveryLoadStartsWithFreshGlobals)
{
    auto stack = make_stack();
    for (int load = 0; load < 2; load++) {
        SCOPED_TRACE(load);
        ASSERT_EQ(load == 0 ? stack->bring_up() : stack->enable(), STATUS_SUCCESS);
        auto handle = open();
        EXPECT_EQ(state(*handle).Loads, 1u);
        handle.reset();
        ASSERT_EQ(stack->disable(), STATUS_SUCCESS);
        EXPECT_FALSE(DriverImage::mapped(PROBE_DRIVER_PATH));
        EXPECT_EQ(ClientHandle::open_interface(GUID_DEVINTERFACE_PROBE, handle),
                  STATUS_OBJECT_NAME_NOT_FOUND)
            << "the interface went with the device";
    }
}

// The child is reported once (a second report finds it present), forwards to its parent only
// when allowed, and is removed before the parent releases its hardware.
TEST_F(LifecycleTest, ChildIsReportedOnceForwardsToItsParentAndGoesFirst)
{
    for (ULONG allow : {1, 0}) {
        SCOPED_TRACE(allow);
        auto stack = make_stack({{u"allowforward", allow}}); // names match in any case
        ASSERT_EQ(stack->bring_up(), STATUS_SUCCESS);
        events();
        auto handle = open();
        ASSERT_EQ(handle->ioctl(IOCTL_PROBE_ADD_CHILD, {}, {}), STATUS_SUCCESS);
        ASSERT_TRUE(stack->wait_for_children(1, sched::current().now() + sched::kSecond));
        // The PnP thread may create the child between the two reports.
        Events seen = events();
        std::stable_partition(seen.begin(), seen.end(),
                              [](const auto& e) { return e.rfind("AddChild", 0) == 0; });
        EXPECT_EQ(seen, (Events{"AddChild(0x0)", "AddChild(0x40000000)", "CreateChild(4097)"}));
        ASSERT_EQ(stack->children().size(), 1u);

        std::unique_ptr<ClientHandle> child;
        ASSERT_EQ(ClientHandle::open_device(stack->children()[0], child), STATUS_SUCCESS);
        std::vector<std::uint8_t> in{1, 2, 3}, out(3);
        EXPECT_EQ(child->ioctl(IOCTL_PROBE_ECHO, in, out),
                  allow ? STATUS_SUCCESS : STATUS_INVALID_DEVICE_REQUEST);
        EXPECT_EQ(out, allow ? (std::vector<std::uint8_t>{2, 3, 4}) : std::vector<std::uint8_t>(3));
        stack->unload();
        EXPECT_TRUE(stack->children().empty());
        EXPECT_EQ(events(), (Events{"ChildReleaseHardware", "D0Exit(D9)", "ReleaseHardware",
                                    "SelfManagedIoCleanup", "DriverCleanup"}));
    }
}

} // namespace
} // namespace mvgps::pnp::test
