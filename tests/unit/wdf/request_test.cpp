#include <vector>

#include "fixture.h"
#include "wdf/request.h"

namespace mvgps::wdf::test
{
namespace
{

class RequestTest : public FrameworkTest
{
  protected:
    void SetUp() override
    {
        FrameworkTest::SetUp();
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
