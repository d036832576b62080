// Power: the first D0 entry after preparation leaves the started device alone; sleep stops
// both threads in order; wake sets the line up again, restarts the threads and the chip's
// start-up.
#include "driver_fixture.h"
#include "link/codec/hci.h"

namespace mvgps::test
{
namespace
{

TEST_F(DriverTest, FirstD0EntrySendsNothing)
{
    start_running();
    EXPECT_TRUE(logged_in_order({"StartFunc_GPS:::::::::", "---->DO entry to 5",
                                 "enable!!!!!!!!!!!", "IsEnable_flag:::::::::1"}))
        << log();
    EXPECT_EQ(count("COM: Set BaudRate("), 1u);
    EXPECT_EQ(count("StartFunc_GPS:::::::::"), 1u);
    EXPECT_EQ(chip_heard(HCI_PID_NMEA, 2), 1u);
}

TEST_F(DriverTest, SleepStopsTheThreadsAndWakeStartsThemAgain)
{
    start_running();
    kernel::clear_debug_output();
    ASSERT_EQ(stack().sleep(PowerDeviceD3), STATUS_SUCCESS);
    EXPECT_TRUE(logged_in_order({"---->DO EXIT to 4", "Threadread_flag is NULL",
                                 "OsWaitForSignal Threadread_FinishSignal", "Thread_flag is NULL",
                                 "OsWaitForSignal Threadprocess_FinishSignal"}))
        << log();
    EXPECT_EQ(ext().ReadThread, nullptr);
    EXPECT_EQ(ext().ProcessThread, nullptr);

    ASSERT_EQ(stack().wake(), STATUS_SUCCESS);
    EXPECT_TRUE(logged_in_order({"---->DO entry to 4", "COM: Set BaudRate(921600) Success",
                                 "COM: Set LineControl Success", "COM: Set handflow Success",
                                 "Sleep to wakeup!!!!!!!!!!!",
                                 "StartFunc_GPS:::::::::", "FdoDevD0Entry: end. STATUS(0x0)"}))
        << log();
    EXPECT_EQ(chip_heard(HCI_PID_NMEA, 2), 2u);
    EXPECT_EQ(chip_heard(HCI_PID_NMEA, 3), 2u);
    EXPECT_NE(ext().ReadThread, nullptr);
}

} // namespace
} // namespace mvgps::test
