// PnP and the driver's life: a start the chip fails unwinds in order, the device outlives its
// UART controller, and every log line also reaches event tracing. Failed set-up steps and the
// ways the device goes away run in the stress suite over many seeds.
#include "driver_fixture.h"
#include "tests/support/driver_log.h"
#include "host/io/names.h"

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

} // namespace
} // namespace mvgps::test
