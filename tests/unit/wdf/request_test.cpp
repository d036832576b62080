#include <vector>

#include "fixture.h"
#include "wdf/request.h"

namespace mvgps::wdf::test
{
namespace
{

// The in-process "driver" keeps every request it is given.
std::vector<WDFREQUEST> g_held;

VOID Hold(WDFQUEUE, WDFREQUEST request, size_t, size_t, ULONG)
{
    g_held.push_back(request);
}

VOID CompleteCancelled(WDFREQUEST request)
{
    WdfRequestComplete(request, STATUS_CANCELLED);
}

class RequestTest : public FrameworkTest
{
  protected:
    void SetUp() override
    {
        FrameworkTest::SetUp();
        g_held.clear();
        device_ = make_device();
    }

    Device* device() { return Objects::get<Device>(device_, Kind::Device, "test"); }

    // A default queue that presents at most `presented` requests to Hold.
    WDFQUEUE hold_queue(Device* device, WDF_TRI_STATE power_managed, ULONG presented)
    {
        WDF_IO_QUEUE_CONFIG config;
        WDF_IO_QUEUE_CONFIG_INIT_DEFAULT_QUEUE(&config, WdfIoQueueDispatchParallel);
        config.EvtIoDeviceControl = Hold;
        config.PowerManaged = power_managed;
        config.Settings.Parallel.NumberOfPresentedRequests = presented;
        WDFQUEUE queue = nullptr;
        EXPECT_EQ(WdfIoQueueCreate(static_cast<WDFDEVICE>(device->handle()), &config,
                                   WDF_NO_OBJECT_ATTRIBUTES, &queue),
                  STATUS_SUCCESS);
        return queue;
    }

    static std::shared_ptr<io::Request> send(Device* device)
    {
        auto irp = io::Request::make(io::Major::DeviceControl, 0, {}, {});
        device->dispatch(Request::incoming(device, irp));
        return irp;
    }

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

// Purge cancels the queued requests and the cancelable ones the driver holds, waits for the
// driver to complete the others, and refuses what comes after.
TEST_F(RequestTest, PurgeSynchronouslyCancelsWhatItCanAndWaitsForTheRest)
{
    WDFQUEUE queue = hold_queue(device(), WdfFalse, 2);
    auto cancelable = send(device());
    auto held = send(device());
    auto queued = send(device());
    ASSERT_EQ(g_held.size(), 2u);
    ASSERT_EQ(WdfRequestMarkCancelableEx(g_held[0], CompleteCancelled), STATUS_SUCCESS);
    auto& s = sched::current();
    auto driver = s.spawn("driver", [&s] {
        s.sleep_until(s.now() + 50 * sched::kMillisecond, "work on the request");
        WdfRequestComplete(g_held[1], STATUS_SUCCESS);
    });
    sched::Nanos start = s.now();
    WdfIoQueuePurgeSynchronously(queue);
    EXPECT_EQ(s.now() - start, 50 * sched::kMillisecond);
    EXPECT_EQ(cancelable->status(), STATUS_CANCELLED);
    EXPECT_EQ(held->status(), STATUS_SUCCESS);
    EXPECT_EQ(queued->status(), STATUS_CANCELLED);
    EXPECT_EQ(send(device())->status(), STATUS_INVALID_DEVICE_STATE);
    s.join(driver);
}

// A child's queues are power-managed unless the driver says otherwise, like any other.
TEST_F(RequestTest, QueuesOfEveryDeviceArePowerManagedByDefault)
{
    for (bool pdo : {false, true}) {
        SCOPED_TRACE(pdo);
        g_held.clear();
        WDFDEVICE_INIT init;
        init.driver = Objects::get<Driver>(driver_, Kind::Driver, "test");
        init.pdo = pdo;
        PWDFDEVICE_INIT record = &init;
        WDFDEVICE handle = nullptr;
        ASSERT_EQ(WdfDeviceCreate(&record, WDF_NO_OBJECT_ATTRIBUTES, &handle), STATUS_SUCCESS);
        auto* device = Objects::get<Device>(handle, Kind::Device, "test");
        hold_queue(device, WdfUseDefault, static_cast<ULONG>(-1));
        send(device);
        EXPECT_TRUE(g_held.empty()) << "held until the device is in D0";
        ASSERT_EQ(device->start({}), STATUS_SUCCESS);
        EXPECT_EQ(g_held.size(), 1u);
        WdfRequestComplete(g_held[0], STATUS_SUCCESS);
        device->remove();
    }
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
