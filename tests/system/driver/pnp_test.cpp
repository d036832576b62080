// PnP and the driver's life: failed starts release exactly what they made, the device goes
// away cleanly in every way it can, and every log line also reaches event tracing.
#include "driver_fixture.h"
#include "tests/support/driver_log.h"
#include "host/io/names.h"
#include "os/pool_tags.h"
#include "host/wdf/faults.h"

namespace mvgps::test
{
namespace
{

TEST_F(DriverTest, EveryLogLineIsAlsoTraced)
{
    start_running();
    bool traced = false;
    for (const kernel::TraceEvent& e : kernel::trace_events()) {
        if (e.text.find("DriverDeviceAdd success ") != std::string::npos) {
            traced = e.keyword == DBG_ERROR && e.level == 2;
        }
    }
    EXPECT_TRUE(traced);
    EXPECT_TRUE(logged("DriverDeviceAdd success "));
    EXPECT_EQ(kernel::registered_providers(), 1u);
}

// With every category on, a whole life of the device (start, the child, a refused child
// request, sleep, wake, removal) prints each line under one of the driver's routines.
TEST_F(DriverTest, EveryLineCarriesARoutineName)
{
    Node node;
    node.log_mask = 0xFFFFFFFF;
    start_running(node);
    std::unique_ptr<pnp::ClientHandle> child = open_child();
    ASSERT_NE(child, nullptr);
    std::shared_ptr<pnp::PendingIo> refused = child->ioctl_async(0x222864, {}, 0);
    ASSERT_TRUE(refused->wait(sched::current().now() + kSecond));
    EXPECT_EQ(refused->status(), STATUS_INVALID_PARAMETER);
    ASSERT_EQ(stack().sleep(PowerDeviceD3), STATUS_SUCCESS);
    ASSERT_EQ(stack().wake(), STATUS_SUCCESS);
    child->close();
    remove();
    EXPECT_TRUE(logged("Enter DriverDeviceAdd")); // an entry trace: the mask took effect
    for (const LogLine& line : parse_log(log())) {
        EXPECT_TRUE(driver_routines().count(line.function)) << line.function << ": " << line.text;
    }
}

// A chip that never answers fails the start-up: the threads stop in order, everything
// device initialisation made is freed in reverse, and no child appears.
TEST_F(DriverTest, FailedChipStartUpUnwindsInitialisation)
{
    Node node;
    node.chip_silent = true;
    EXPECT_EQ(start(node), STATUS_DEVICE_NOT_READY);
    EXPECT_TRUE(logged_in_order(
        {"Threadread_flag is NULL", "OsWaitForSignal Threadread_FinishSignal",
         "Thread_flag is NULL", "OsWaitForSignal Threadprocess_FinishSignal",
         "free Threadprocess_FinishSignal", "free Threadread_FinishSignal", "free DataFinishSignal",
         "free DeviceAssocFinishSignal", "+_FdoExtension->ReadEventQueue  delete",
         " DeviceInitialize failed STATUS(0xc00000a3)"}))
        << log();
    EXPECT_FALSE(logged("+CreateWorkItem to enable PDO"));
}

struct FailureCase {
    const char* name;
    wdf::faults::Rule rule;
    NTSTATUS status;
    const char* line;
};

void PrintTo(const FailureCase& c, std::ostream* os)
{
    *os << c.name;
}

// Each set-up step failing in turn; the unload after each stops the run on anything left.
const FailureCase kFailureCases[] = {
    {"io_target", wdf::faults::fail_nth_create(1, wdf::Kind::IoTarget),
     STATUS_INSUFFICIENT_RESOURCES, "WdfIoTargetCreate fails: Status(0xc000009a)"},
    {"first_request", wdf::faults::fail_nth_create(1, wdf::Kind::Request),
     STATUS_INSUFFICIENT_RESOURCES, " WdfRequestCreate failed :STATUS(0xc000009a)"},
    {"second_request", wdf::faults::fail_nth_create(2, wdf::Kind::Request),
     STATUS_INSUFFICIENT_RESOURCES, " WdfRequestCreate failed: STATUS(0xc000009a)"},
    {"request_memory", wdf::faults::fail_nth_create(1, wdf::Kind::Memory),
     STATUS_INSUFFICIENT_RESOURCES, " WdfMemoryCreatePreallocated failed STATUS(0xc000009a)"},
    {"read_event_queue", wdf::faults::fail_nth_create(2, wdf::Kind::Queue), STATUS_DEVICE_NOT_READY,
     " WdfIoQueueCreate(Event) Status(0xc000009a)"},
    {"work_item", wdf::faults::fail_nth_create(1, wdf::Kind::WorkItem),
     STATUS_INSUFFICIENT_RESOURCES, "FdoDevPrepareHardware End: STATUS(0xc000009a)"},
    {"data_queue", wdf::faults::fail_nth_create(3, wdf::Kind::Queue), STATUS_INSUFFICIENT_RESOURCES,
     " UART_CreateLocalIOQueues failed Status(0xc000009a)"},
};

class Failures : public DriverTest, public testing::WithParamInterface<FailureCase>
{
};

TEST_P(Failures, FailedStepReleasesWhatWasMade)
{
    wdf::faults::add(GetParam().rule);
    EXPECT_EQ(start(), GetParam().status);
    EXPECT_TRUE(logged(GetParam().line)) << log();
}

INSTANTIATE_TEST_SUITE_P(Driver, Failures, testing::ValuesIn(kFailureCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(DriverTest, SignalAllocationFailureUnwinds)
{
    kernel::add_pool_fault(kernel::fail_nth(2, OS_POOL_TAG));
    EXPECT_EQ(start(), STATUS_DEVICE_NOT_READY);
    kernel::clear_pool_faults();
    EXPECT_TRUE(
        logged_in_order({"HCI:   PREPARE FOR DataFinishSignal ERROR",
                         "free DeviceAssocFinishSignal", "+_FdoExtension->ReadEventQueue  delete"}))
        << log();
}

TEST_F(DriverTest, DisableUnloadsAndEnableStartsAgain)
{
    start_running();
    ASSERT_EQ(stack().disable(), STATUS_SUCCESS);
    EXPECT_FALSE(stack().image().loaded());
    EXPECT_EQ(kernel::registered_providers(), 0u);
    ASSERT_EQ(stack().enable(), STATUS_SUCCESS);
    EXPECT_TRUE(stack().wait_for_children(1, sched::current().now() + kSecond));
}

TEST_F(DriverTest, SurpriseRemovalWithClientsOpen)
{
    start_running();
    std::unique_ptr<pnp::ClientHandle> parent = open_parent();
    std::unique_ptr<pnp::ClientHandle> child = open_child();
    stack().surprise_remove();
    EXPECT_TRUE(
        logged_in_order({"---->DO EXIT to 5", "Threadread_flag is NULL", "FdoDevReleaseHardware"}))
        << log();
    parent->close();
    child->close();
    // The read resources go with the later removal at the latest.
    remove();
    EXPECT_TRUE(logged_in_order({"FdoDevReleaseHardware", "---->FdoDevSelfManagedIoCleanup"}));
}

// The UART controller goes away under the running driver (a surprise: no query first): the
// read ends, and the device still sleeps and goes away cleanly over the closed target.
TEST_F(DriverTest, UartControllerRemovedUnderTheDriver)
{
    start_running();
    io::remove(pnp::resource_hub_path(kUartId));
    EXPECT_TRUE(wait_until([] { return logged("OsSetSignal Threadread_FinishSignal"); }));
    ASSERT_EQ(stack().sleep(PowerDeviceD3), STATUS_SUCCESS);
    EXPECT_EQ(ext().ReadThread, nullptr);
    remove();
}

TEST_F(DriverTest, RemovalWithClientsStillOpen)
{
    start_running();
    std::unique_ptr<pnp::ClientHandle> parent = open_parent();
    remove();
    EXPECT_TRUE(
        logged_in_order({"---->DO EXIT to 5", "Threadread_flag is NULL", "FdoDevReleaseHardware"}))
        << log();
    parent->close();
}

} // namespace
} // namespace mvgps::test
