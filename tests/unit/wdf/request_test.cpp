#include <string>
#include <vector>

#include "fixture.h"
#include "kernel/kernel.h"
#include "wdf/request.h"

namespace mvgps::wdf::test
{
namespace
{

constexpr ULONG kBuffered = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x800, METHOD_BUFFERED, FILE_ANY_ACCESS);
constexpr ULONG kNeither = CTL_CODE(FILE_DEVICE_UNKNOWN, 0x801, METHOD_NEITHER, FILE_ANY_ACCESS);

// What the in-process "driver" below saw and how it answers.
struct Script {
    std::vector<WDFREQUEST> delivered;
    std::vector<NTSTATUS> retrieved;
    std::vector<std::string> events;
    bool complete_at_once = true;
};
Script g;

VOID OnDeviceControl(WDFQUEUE, WDFREQUEST request, size_t, size_t, ULONG)
{
    g.delivered.push_back(request);
    WDFMEMORY memory;
    g.retrieved.push_back(WdfRequestRetrieveInputMemory(request, &memory));
    g.retrieved.push_back(WdfRequestRetrieveOutputMemory(request, &memory));
    if (g.complete_at_once) {
        WdfRequestCompleteWithInformation(request, STATUS_SUCCESS, 1);
    }
}

VOID OnCanceledOnQueue(WDFQUEUE, WDFREQUEST request)
{
    g.events.push_back("canceled on queue");
    WdfRequestComplete(request, STATUS_CANCELLED);
}

VOID OnCancel(WDFREQUEST request)
{
    g.events.push_back("cancel routine");
    WdfRequestComplete(request, STATUS_CANCELLED);
}

class RequestTest : public FrameworkTest
{
  protected:
    void SetUp() override
    {
        FrameworkTest::SetUp();
        g = Script{};
        device_ = make_device();
    }

    WDFQUEUE make_queue(WDF_IO_QUEUE_DISPATCH_TYPE type, bool default_queue)
    {
        WDF_IO_QUEUE_CONFIG config;
        WDF_IO_QUEUE_CONFIG_INIT(&config, type);
        config.DefaultQueue = default_queue;
        config.PowerManaged = WdfFalse;
        if (type != WdfIoQueueDispatchManual) {
            config.EvtIoDeviceControl = OnDeviceControl;
        }
        config.EvtIoCanceledOnQueue = OnCanceledOnQueue;
        WDFQUEUE queue = nullptr;
        EXPECT_EQ(WdfIoQueueCreate(device_, &config, WDF_NO_OBJECT_ATTRIBUTES, &queue),
                  STATUS_SUCCESS);
        return queue;
    }

    struct Sent {
        NTSTATUS status = STATUS_PENDING;
        ULONG_PTR information = 0;
    };
    std::shared_ptr<Request> send(ULONG code, Sent& sent)
    {
        Request::Buffers buffers{in_, sizeof in_, out_, sizeof out_,
                                 METHOD_FROM_CTL_CODE(code) == METHOD_NEITHER};
        auto request = Request::incoming(Objects::get<Device>(device_, Kind::Device, "test"),
                                         Major::DeviceControl, code, buffers,
                                         [&sent](NTSTATUS status, ULONG_PTR information) {
                                             sent = {status, information};
                                         });
        Objects::get<Device>(device_, Kind::Device, "test")->dispatch(request);
        return request;
    }

    WDFDEVICE device_ = nullptr;
    UCHAR in_[4] = {};
    UCHAR out_[4] = {};
};

TEST_F(RequestTest, BuffersReachTheDriverOnlyThroughTheMethodsThatCarryThem)
{
    make_queue(WdfIoQueueDispatchParallel, true);
    struct Case {
        ULONG code;
        NTSTATUS input, output;
    };
    for (const Case c :
         {Case{kBuffered, STATUS_SUCCESS, STATUS_SUCCESS},
          Case{kNeither, STATUS_INVALID_DEVICE_REQUEST, STATUS_INVALID_DEVICE_REQUEST}}) {
        g.retrieved.clear();
        Sent sent;
        send(c.code, sent);
        EXPECT_EQ(g.retrieved, (std::vector<NTSTATUS>{c.input, c.output}));
        EXPECT_EQ(sent.status, STATUS_SUCCESS);
        EXPECT_EQ(sent.information, 1u);
    }
}

TEST_F(RequestTest, CancellationReachesTheRequestWhereverItIs)
{
    WDFQUEUE manual = make_queue(WdfIoQueueDispatchManual, false);
    make_queue(WdfIoQueueDispatchParallel, true);
    g.complete_at_once = false;

    Sent queued;
    auto request = send(kBuffered, queued);
    ASSERT_EQ(WdfRequestForwardToIoQueue(g.delivered.back(), manual), STATUS_SUCCESS);
    request->cancel();
    EXPECT_EQ(queued.status, STATUS_CANCELLED);

    Sent marked;
    request = send(kBuffered, marked);
    ASSERT_EQ(WdfRequestMarkCancelableEx(g.delivered.back(), OnCancel), STATUS_SUCCESS);
    request->cancel();
    EXPECT_EQ(marked.status, STATUS_CANCELLED);

    Sent unmarked;
    request = send(kBuffered, unmarked);
    request->cancel();
    EXPECT_EQ(unmarked.status, STATUS_PENDING) << "the driver decides when to stop";
    EXPECT_TRUE(WdfRequestIsCanceled(g.delivered.back()));
    EXPECT_EQ(WdfRequestMarkCancelableEx(g.delivered.back(), OnCancel), STATUS_CANCELLED);
    WdfRequestComplete(g.delivered.back(), STATUS_CANCELLED);

    EXPECT_EQ(g.events, (std::vector<std::string>{"canceled on queue", "cancel routine"}));
}

TEST_F(RequestTest, SequentialQueuePresentsOneRequestAtATime)
{
    make_queue(WdfIoQueueDispatchSequential, true);
    g.complete_at_once = false;
    Sent first, second;
    send(kBuffered, first);
    send(kBuffered, second);
    ASSERT_EQ(g.delivered.size(), 1u);
    WdfRequestComplete(g.delivered[0], STATUS_SUCCESS);
    ASSERT_EQ(g.delivered.size(), 2u) << "the next one follows the completion";
    WdfRequestComplete(g.delivered[1], STATUS_SUCCESS);
    EXPECT_EQ(second.status, STATUS_SUCCESS);
}

TEST_F(RequestTest, DriverRequestsAreReusedAndMemoryObjectsOwnTheirPool)
{
    WDFREQUEST request;
    ASSERT_EQ(WdfRequestCreate(WDF_NO_OBJECT_ATTRIBUTES, nullptr, &request), STATUS_SUCCESS);
    WDF_REQUEST_REUSE_PARAMS reuse;
    WDF_REQUEST_REUSE_PARAMS_INIT(&reuse, WDF_REQUEST_REUSE_NO_FLAGS, STATUS_TIMEOUT);
    EXPECT_EQ(WdfRequestReuse(request, &reuse), STATUS_SUCCESS);
    EXPECT_EQ(WdfRequestGetStatus(request), STATUS_TIMEOUT);
    WdfObjectDelete(request);

    const ULONG tag = 0x54534554;
    auto live = [&] { return kernel::pool_stats(tag).live_blocks; };
    std::uint64_t before = live();
    WDFMEMORY memory;
    PVOID buffer;
    ASSERT_EQ(WdfMemoryCreate(WDF_NO_OBJECT_ATTRIBUTES, NonPagedPoolNx, 0, 16, &memory, &buffer),
              STATUS_SUCCESS);
    EXPECT_EQ(live(), before + 1) << "the driver's pool tag is the default";
    size_t size = 0;
    EXPECT_EQ(WdfMemoryGetBuffer(memory, &size), buffer);
    EXPECT_EQ(size, 16u);
    UCHAR bytes[4] = {1, 2, 3, 4};
    EXPECT_EQ(WdfMemoryCopyFromBuffer(memory, 12, bytes, 4), STATUS_SUCCESS);
    EXPECT_EQ(WdfMemoryCopyFromBuffer(memory, 13, bytes, 4), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(WdfMemoryCopyToBuffer(memory, SIZE_MAX, bytes, 1), STATUS_BUFFER_TOO_SMALL);
    WdfObjectDelete(memory);
    EXPECT_EQ(live(), before);

    UCHAR local[4];
    ASSERT_EQ(WdfMemoryCreatePreallocated(WDF_NO_OBJECT_ATTRIBUTES, local, 1, &memory),
              STATUS_SUCCESS);
    EXPECT_EQ(WdfMemoryGetBuffer(memory, &size), local);
    EXPECT_EQ(size, 1u);
}

VOID AcknowledgeStop(WDFQUEUE, WDFREQUEST request, ULONG action)
{
    g.events.push_back(action == WdfRequestStopActionSuspend ? "stop: suspend" : "stop: other");
    WdfRequestStopAcknowledge(request, FALSE);
}

TEST_F(RequestTest, AcknowledgedStopLetsTheDeviceLeaveD0WithARequestInHand)
{
    WDF_IO_QUEUE_CONFIG config;
    WDF_IO_QUEUE_CONFIG_INIT_DEFAULT_QUEUE(&config, WdfIoQueueDispatchParallel);
    config.EvtIoDeviceControl = OnDeviceControl;
    config.EvtIoStop = AcknowledgeStop;
    ASSERT_EQ(WdfIoQueueCreate(device_, &config, WDF_NO_OBJECT_ATTRIBUTES, nullptr),
              STATUS_SUCCESS);
    Device* device = Objects::get<Device>(device_, Kind::Device, "test");
    ASSERT_EQ(device->start({}), STATUS_SUCCESS);
    g.complete_at_once = false;
    Sent held;
    send(kBuffered, held);
    ASSERT_EQ(g.delivered.size(), 1u);

    auto& s = sched::current();
    sched::Nanos before = s.now();
    EXPECT_EQ(device->set_power(PowerDeviceD3), STATUS_SUCCESS);
    EXPECT_EQ(s.now(), before) << "no wait for the acknowledged request";
    EXPECT_EQ(g.events, (std::vector<std::string>{"stop: suspend"}));
    EXPECT_EQ(device->set_power(PowerDeviceD0), STATUS_SUCCESS);
    WdfRequestComplete(g.delivered[0], STATUS_SUCCESS);
    EXPECT_EQ(held.status, STATUS_SUCCESS);
    device->remove(false);
}

using RequestDeathTest = RequestTest;

TEST_F(RequestDeathTest, CompletingARequestTheDriverMadeStops)
{
    WDFREQUEST request;
    ASSERT_EQ(WdfRequestCreate(WDF_NO_OBJECT_ATTRIBUTES, nullptr, &request), STATUS_SUCCESS);
    EXPECT_DEATH(WdfRequestComplete(request, STATUS_SUCCESS), "it made it; delete it instead");
    WDFQUEUE queue = make_queue(WdfIoQueueDispatchParallel, true);
    EXPECT_DEATH(WdfObjectDelete(queue), "WdfObjectDelete on a WDFQUEUE the framework owns");
}

// Work items.
struct WorkLog {
    int running = 0;
    int most = 0;
    int done = 0;
};
WorkLog g_work;

VOID SlowWork(WDFWORKITEM)
{
    auto& s = sched::current();
    g_work.most = std::max(g_work.most, ++g_work.running);
    s.sleep_until(s.now() + 10 * sched::kMillisecond, "work");
    g_work.running--;
    g_work.done++;
}

TEST_F(RequestTest, WorkItemsOfADeviceRunOneAtATimeAndDeletionWaitsForThem)
{
    g_work = {};
    WDF_WORKITEM_CONFIG config;
    WDF_WORKITEM_CONFIG_INIT(&config, SlowWork);
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    attributes.ParentObject = device_;
    WDFWORKITEM items[3];
    for (auto& item : items) {
        ASSERT_EQ(WdfWorkItemCreate(&config, &attributes, &item), STATUS_SUCCESS);
        WdfWorkItemEnqueue(item);
    }
    Objects::remove(Objects::get<Device>(device_, Kind::Device, "test"));
    EXPECT_EQ(g_work.done, 3);
    EXPECT_EQ(g_work.most, 1);
}

} // namespace
} // namespace mvgps::wdf::test
