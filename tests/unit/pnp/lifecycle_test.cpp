#include <algorithm>

#include "probe_fixture.h"

namespace mvgps::pnp::test
{
namespace
{

class LifecycleTest : public ProbeTest
{
  public:
    // One step of a scenario and the callbacks it must produce, in order.
    struct Step {
        void (*run)(LifecycleTest&);
        Events expected;
    };
    struct Scenario {
        const char* name;
        std::map<std::u16string, ULONG> parameters;
        NTSTATUS bring_up;
        Events started;
        std::vector<Step> steps;
    };

    void play(const Scenario& scenario)
    {
        SCOPED_TRACE(scenario.name);
        stack_ = make_stack(scenario.parameters);
        EXPECT_EQ(stack_->bring_up(), scenario.bring_up);
        EXPECT_EQ(events(), scenario.started);
        for (std::size_t i = 0; i < scenario.steps.size(); i++) {
            SCOPED_TRACE(i);
            scenario.steps[i].run(*this);
            EXPECT_EQ(events(), scenario.steps[i].expected);
        }
        held_.clear();
        handle_.reset();
        stack_.reset();
        events();
    }

    NTSTATUS echo()
    {
        std::vector<std::uint8_t> in{1}, out(1);
        return handle_->ioctl(IOCTL_PROBE_ECHO, in, out);
    }

    std::unique_ptr<DeviceStack> stack_;
    std::unique_ptr<ClientHandle> handle_;
    std::vector<std::shared_ptr<PendingIo>> held_;
};

const Events kStarted{"DriverEntry", "DeviceAdd", "PrepareHardware", "D0Entry(D9)",
                      "SelfManagedIoInit"};
// The interface goes only after the hardware is released.
const Events kRemovedInD0{
    "SelfManagedIoSuspend", "D0Exit(D9)",           "ReleaseHardware(interface enabled)",
    "SelfManagedIoFlush",   "SelfManagedIoCleanup", "DriverCleanup"};

TEST_F(LifecycleTest, CallbacksComeInTheFrameworksOrder)
{
    const Step hold{[](LifecycleTest& t) {
                        t.handle_ = open();
                        t.held_.push_back(
                            t.handle_->ioctl_async(IOCTL_PROBE_HOLD_CANCELABLE, {}, 0));
                    },
                    {}};
    const Step sleep{[](LifecycleTest& t) { EXPECT_EQ(t.stack_->sleep(), STATUS_SUCCESS); },
                     {"SelfManagedIoSuspend", "D0Exit(D3)"}};
    const Step sleep_holding{sleep.run,
                             {"SelfManagedIoSuspend", "IoStop(0x10000001)", "D0Exit(D3)"}};
    const Step wake{[](LifecycleTest& t) { EXPECT_EQ(t.stack_->wake(), STATUS_SUCCESS); },
                    {"D0Entry(D3)", "SelfManagedIoRestart"}};
    const Step wake_holding{wake.run, {"D0Entry(D3)", "IoResume", "SelfManagedIoRestart"}};
    // The acknowledged request is stopped again on the way down, then cancelled by the purge
    // and not shown to EvtIoStop a second time.
    const Step unload_holding{[](LifecycleTest& t) { t.stack_->unload(); },
                              {"SelfManagedIoSuspend", "IoStop(0x10000001)", "D0Exit(D9)",
                               "ReleaseHardware(interface enabled)", "RequestCancel",
                               "SelfManagedIoFlush", "SelfManagedIoCleanup", "DriverCleanup"}};
    // A queue that is not power-managed is purged only after Flush, and never stopped.
    const Step unload_holding_unmanaged{[](LifecycleTest& t) { t.stack_->unload(); },
                                        {"SelfManagedIoSuspend", "D0Exit(D9)",
                                         "ReleaseHardware(interface enabled)", "SelfManagedIoFlush",
                                         "RequestCancel", "SelfManagedIoCleanup", "DriverCleanup"}};
    const Step unload{[](LifecycleTest& t) { t.stack_->unload(); }, kRemovedInD0};
    const Step remove_asleep{
        [](LifecycleTest& t) { t.stack_->remove(); },
        {"ReleaseHardware(interface enabled)", "SelfManagedIoFlush", "SelfManagedIoCleanup"}};
    const Step surprise{[](LifecycleTest& t) {
                            t.handle_ = open();
                            t.stack_->surprise_remove();
                        },
                        {"SurpriseRemoval", "SelfManagedIoSuspend", "D0Exit(D9)",
                         "ReleaseHardware(interface enabled)", "SelfManagedIoFlush"}};
    // Between the two events a queue that is not power-managed still reaches the driver.
    const Step send_after_surprise{[](LifecycleTest& t) { EXPECT_EQ(t.echo(), STATUS_SUCCESS); },
                                   {}};
    const Step send_purged{
        [](LifecycleTest& t) { EXPECT_EQ(t.echo(), STATUS_INVALID_DEVICE_STATE); }, {}};
    const Step remove_after_surprise{[](LifecycleTest& t) { t.stack_->remove(); },
                                     {"SelfManagedIoCleanup"}};
    const Step disable{[](LifecycleTest& t) { EXPECT_EQ(t.stack_->disable(), STATUS_SUCCESS); },
                       {"QueryRemove", "SelfManagedIoSuspend", "D0Exit(D9)",
                        "ReleaseHardware(interface enabled)", "SelfManagedIoFlush",
                        "SelfManagedIoCleanup", "DriverCleanup"}};
    const Step disable_vetoed{[](LifecycleTest& t) {
                                  EXPECT_EQ(t.stack_->disable(), STATUS_UNSUCCESSFUL);
                                  t.handle_ = open();
                                  EXPECT_EQ(t.echo(), STATUS_SUCCESS) << "still running";
                              },
                              {"QueryRemove"}};
    const Scenario scenarios[] = {
        {"sleep, wake twice, unload",
         {},
         STATUS_SUCCESS,
         kStarted,
         {sleep, wake, sleep, wake, unload}},
        {"sleep and wake with a request in hand, unload",
         {},
         STATUS_SUCCESS,
         kStarted,
         {hold, sleep_holding, wake_holding, unload_holding}},
        {"unload with a request in hand, queue not power-managed",
         {{u"QueuePowerManaged", 0}},
         STATUS_SUCCESS,
         kStarted,
         {hold, unload_holding_unmanaged}},
        {"removal while asleep", {}, STATUS_SUCCESS, kStarted, {sleep, remove_asleep}},
        {"surprise removal, power-managed queue",
         {},
         STATUS_SUCCESS,
         kStarted,
         {surprise, send_purged, remove_after_surprise}},
        {"surprise removal, queue not power-managed",
         {{u"QueuePowerManaged", 0}},
         STATUS_SUCCESS,
         kStarted,
         {surprise, send_after_surprise, remove_after_surprise}},
        {"disable", {}, STATUS_SUCCESS, kStarted, {disable}},
        {"disable vetoed", {{u"VetoRemove", 1}}, STATUS_SUCCESS, kStarted, {disable_vetoed}},
    };
    for (const auto& scenario : scenarios) {
        play(scenario);
    }
}

// Clean-up runs after partial set-up: every failure is followed by ReleaseHardware, and once
// SelfManagedIoInit was called, by Flush and Cleanup at the removal.
TEST_F(LifecycleTest, FailuresAreFollowedByTheFrameworksTeardown)
{
    const Step sleep{[](LifecycleTest& t) { EXPECT_EQ(t.stack_->sleep(), STATUS_SUCCESS); },
                     {"SelfManagedIoSuspend", "D0Exit(D3)"}};
    const Step failed_wake{[](LifecycleTest& t) {
                               EXPECT_EQ(t.stack_->wake(), STATUS_DEVICE_NOT_READY);
                               EXPECT_EQ(t.stack_->fdo(), nullptr)
                                   << "the failed device is removed";
                           },
                           {"D0Entry(D3)", "ReleaseHardware(interface enabled)",
                            "SelfManagedIoFlush", "SelfManagedIoCleanup"}};
    const Scenario scenarios[] = {
        {"PrepareHardware fails",
         {{u"Fail", PROBE_FAIL_PREPARE_HARDWARE}},
         STATUS_DEVICE_NOT_READY,
         {"DriverEntry", "DeviceAdd", "PrepareHardware", "ReleaseHardware", "DriverCleanup"},
         {}},
        {"SelfManagedIoInit fails",
         {{u"Fail", PROBE_FAIL_SELF_MANAGED_IO_INIT}},
         STATUS_DEVICE_NOT_READY,
         {"DriverEntry", "DeviceAdd", "PrepareHardware", "D0Entry(D9)", "SelfManagedIoInit",
          "D0Exit(D9)", "ReleaseHardware", "SelfManagedIoFlush", "SelfManagedIoCleanup",
          "DriverCleanup"},
         {}},
        {"D0Entry fails on wake",
         {{u"Fail", PROBE_FAIL_WAKE}},
         STATUS_SUCCESS,
         kStarted,
         {sleep, failed_wake}},
    };
    for (const auto& scenario : scenarios) {
        play(scenario);
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
        Events removal{"ChildReleaseHardware"};
        removal.insert(removal.end(), kRemovedInD0.begin(), kRemovedInD0.end());
        EXPECT_EQ(events(), removal) << "the child goes before its parent's hardware";
    }
}

} // namespace
} // namespace mvgps::pnp::test
