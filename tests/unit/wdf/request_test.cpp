#include <vector>

#include "fixture.h"
#include "host/wdf/request.h"

namespace mvgps::wdf::test
{
namespace
{

// The in-process "driver" keeps every request it is given, and acknowledges every stop.
std::vector<WDFREQUEST> g_delivered;
std::vector<ULONG> g_stop_actions;

VOID OnDeviceControl(WDFQUEUE, WDFREQUEST request, size_t, size_t, ULONG)
{
    g_delivered.push_back(request);
}

VOID AcknowledgeStop(WDFQUEUE, WDFREQUEST request, ULONG action)
{
    g_stop_actions.push_back(action);
    WdfRequestStopAcknowledge(request, FALSE);
}

class RequestTest : public FrameworkTest
{
  protected:
    void SetUp() override
    {
        FrameworkTest::SetUp();
        g_delivered.clear();
        g_stop_actions.clear();
        device_ = make_device();
    }

    Device* device() { return Objects::get<Device>(device_, Kind::Device, "test"); }

    WDFDEVICE device_ = nullptr;
};

TEST_F(RequestTest, DriverRequestsAreReusedAndMemoryCopiesStayInBounds)
{
    WDFREQUEST request;
    ASSERT_EQ(WdfRequestCreate(WDF_NO_OBJECT_ATTRIBUTES, nullptr, &request), STATUS_SUCCESS);
    WDF_REQUEST_REUSE_PARAMS reuse;
    WDF_REQUEST_REUSE_PARAMS_INIT(&reuse, WDF_REQUEST_REUSE_NO_FLAGS, STATUS_TIMEOUT);
    EXPECT_EQ(WdfRequestReuse(request, &reuse), STATUS_SUCCESS);
    EXPECT_EQ(WdfRequestGetStatus(request), STATUS_TIMEOUT);
    WdfObjectDelete(request);

    UCHAR local[16] = {};
    WDFMEMORY memory;
    size_t size = 0;
    ASSERT_EQ(WdfMemoryCreatePreallocated(WDF_NO_OBJECT_ATTRIBUTES, local, sizeof local, &memory),
              STATUS_SUCCESS);
    EXPECT_EQ(WdfMemoryGetBuffer(memory, &size), local);
    EXPECT_EQ(size, sizeof local);
    UCHAR bytes[4] = {1, 2, 3, 4};
    EXPECT_EQ(WdfMemoryCopyFromBuffer(memory, 12, bytes, 4), STATUS_SUCCESS);
    EXPECT_EQ(local[15], 4);
    EXPECT_EQ(WdfMemoryCopyFromBuffer(memory, 13, bytes, 4), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(WdfMemoryCopyToBuffer(memory, SIZE_MAX, bytes, 1), STATUS_BUFFER_TOO_SMALL);
}

TEST_F(RequestTest, AcknowledgedStopLetsTheDeviceLeaveD0WithARequestInHand)
{
    WDF_IO_QUEUE_CONFIG config;
    WDF_IO_QUEUE_CONFIG_INIT_DEFAULT_QUEUE(&config, WdfIoQueueDispatchParallel);
    config.EvtIoDeviceControl = OnDeviceControl;
    config.EvtIoStop = AcknowledgeStop;
    ASSERT_EQ(WdfIoQueueCreate(device_, &config, WDF_NO_OBJECT_ATTRIBUTES, nullptr),
              STATUS_SUCCESS);
    ASSERT_EQ(device()->start({}), STATUS_SUCCESS);
    NTSTATUS sent = STATUS_PENDING;
    device()->dispatch(Request::incoming(device(), Major::DeviceControl, 0, {},
                                         [&sent](NTSTATUS status, ULONG_PTR) { sent = status; }));
    ASSERT_EQ(g_delivered.size(), 1u);

    auto& s = sched::current();
    sched::Nanos before = s.now();
    EXPECT_EQ(device()->set_power(PowerDeviceD3), STATUS_SUCCESS);
    EXPECT_EQ(s.now(), before) << "no wait for the acknowledged request";
    EXPECT_EQ(g_stop_actions, std::vector<ULONG>{WdfRequestStopActionSuspend});
    EXPECT_EQ(device()->set_power(PowerDeviceD0), STATUS_SUCCESS);
    WdfRequestComplete(g_delivered[0], STATUS_SUCCESS);
    EXPECT_EQ(sent, STATUS_SUCCESS);
    device()->remove(false);
}

int g_running, g_most_running, g_done;
VOID SlowWork(WDFWORKITEM)
{
    auto& s = sched::current();
    g_most_running = std::max(g_most_running, ++g_running);
    s.sleep_until(s.now() + 10 * sched::kMillisecond, "work");
    g_running--;
    g_done++;
}

TEST_F(RequestTest, WorkItemsOfADeviceRunOneAtATimeAndDeletionWaitsForThem)
{
    g_running = g_most_running = g_done = 0;
    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, SlowWork);
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = device_;
    for (int i = 0; i < 3; i++) {
        WDFWORKITEM item;
        ASSERT_EQ(WdfWorkItemCreate(&config, &attributes, &item), STATUS_SUCCESS);
        WdfWorkItemEnqueue(item);
    }
    Objects::remove(device());
    EXPECT_EQ(g_done, 3);
    EXPECT_EQ(g_most_running, 1);
}

} // namespace
} // namespace mvgps::wdf::test
