#include <functional>
#include <optional>
#include <vector>

#include "fixture.h"
#include "host/io/names.h"

namespace mvgps::wdf::test
{
namespace
{

// A lower device whose behaviour each test scripts; `opens` counts its files still open.
struct FakeDevice : io::Device {
    struct File : io::File {
        explicit File(FakeDevice& d) : device(d) { device.opens++; }
        ~File() override { device.opens--; }
        void dispatch(std::shared_ptr<io::Request> r) override
        {
            device.dispatched++;
            device.serve(std::move(r));
        }
        FakeDevice& device;
    };
    NTSTATUS open(const io::OpenParams&, std::unique_ptr<io::File>& file) override
    {
        file = std::make_unique<File>(*this);
        return STATUS_SUCCESS;
    }
    std::function<void(std::shared_ptr<io::Request>)> serve;
    int opens = 0;
    int dispatched = 0;
};

constexpr sched::Nanos kNever = sched::kForever / 4;
constexpr sched::Nanos kMs = sched::kMillisecond;

class IoTargetTest : public FrameworkTest
{
  protected:
    void SetUp() override
    {
        FrameworkTest::SetUp();
        device_ = std::make_shared<FakeDevice>();
        io::bind(u"\\Device\\Fake0", device_);
        ASSERT_EQ(WdfIoTargetCreate(make_device(), WDF_NO_OBJECT_ATTRIBUTES, &target_),
                  STATUS_SUCCESS);
    }
    void TearDown() override
    {
        for (auto* t : workers_) {
            sched::current().join(t);
        }
        io::unbind(u"\\Device\\Fake0");
        FrameworkTest::TearDown();
    }

    // Completes after `delay` with `bytes` bytes; a cancel completes at once with `on_cancel`
    // and 3 bytes.
    void complete_after(sched::Nanos delay, std::size_t bytes,
                        NTSTATUS on_cancel = STATUS_CANCELLED)
    {
        device_->serve = [=, this](std::shared_ptr<io::Request> r) {
            r->set_cancel_routine([=](io::Request& req) { req.complete(on_cancel, 3); });
            workers_.push_back(sched::current().spawn("device", [r, delay, bytes] {
                // Cancelling completes the request, which ends this wait early.
                if (!r->wait(sched::current().now() + delay) && r->clear_cancel_routine()) {
                    r->complete(STATUS_SUCCESS, bytes);
                }
            }));
        };
    }

    NTSTATUS open(const char16_t* name = u"\\Device\\Fake0",
                  PFN_WDF_IO_TARGET_QUERY_REMOVE query_remove = nullptr)
    {
        UNICODE_STRING path;
        RtlInitUnicodeString(&path, reinterpret_cast<PCWSTR>(name));
        WDF_IO_TARGET_OPEN_PARAMS params;
        WDF_IO_TARGET_OPEN_PARAMS_INIT_OPEN_BY_NAME(&params, &path, STANDARD_RIGHTS_ALL);
        params.EvtIoTargetQueryRemove = query_remove;
        return WdfIoTargetOpen(target_, &params);
    }

    // A synchronous read of 8 bytes; with no `timeout_ms` it sends without the timeout
    // option (a timeout of 0 sets the option with 0).
    NTSTATUS read(std::optional<ULONG> timeout_ms, ULONG_PTR* bytes, ULONG flags = 0)
    {
        WDF_MEMORY_DESCRIPTOR d;
        WDF_MEMORY_DESCRIPTOR_INIT_BUFFER(&d, buffer_, sizeof buffer_);
        WDF_REQUEST_SEND_OPTIONS options;
        WDF_REQUEST_SEND_OPTIONS_INIT(&options, WDF_REQUEST_SEND_OPTION_SYNCHRONOUS | flags);
        if (timeout_ms) {
            WDF_REQUEST_SEND_OPTIONS_SET_TIMEOUT(&options, WDF_REL_TIMEOUT_IN_MS(*timeout_ms));
        }
        return WdfIoTargetSendReadSynchronously(target_, nullptr, &d, nullptr, &options, bytes);
    }

    std::shared_ptr<FakeDevice> device_;
    WDFIOTARGET target_ = nullptr;
    UCHAR buffer_[8] = {};
    std::vector<sched::Thread*> workers_;
};

TEST_F(IoTargetTest, TimeoutCancelsTheRequestAndCancelledBecomesIoTimeout)
{
    struct Case {
        const char* name;
        sched::Nanos device_time;
        NTSTATUS on_cancel;
        std::optional<ULONG> timeout_ms;
        NTSTATUS status;
        ULONG_PTR bytes;
        sched::Nanos elapsed;
    };
    const Case cases[] = {
        {"cancelled at the timeout", kNever, STATUS_CANCELLED, 50, STATUS_IO_TIMEOUT, 3, 50 * kMs},
        {"device ends otherwise on cancel", kNever, STATUS_TIMEOUT, 50, STATUS_TIMEOUT, 3,
         50 * kMs},
        {"completes in time", 10 * kMs, STATUS_CANCELLED, 50, STATUS_SUCCESS, 5, 10 * kMs},
        {"no timeout waits as long as it takes",
         2000 * kMs,
         STATUS_CANCELLED,
         {},
         STATUS_SUCCESS,
         5,
         2000 * kMs},
        {"a timeout of 0 is none", 2000 * kMs, STATUS_CANCELLED, 0, STATUS_SUCCESS, 5, 2000 * kMs},
    };
    ASSERT_EQ(open(), STATUS_SUCCESS);
    auto& s = sched::current();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        complete_after(c.device_time, 5, c.on_cancel);
        ULONG_PTR bytes = 99;
        sched::Nanos start = s.now();
        EXPECT_EQ(read(c.timeout_ms, &bytes), c.status);
        EXPECT_EQ(bytes, c.bytes);
        EXPECT_EQ(s.now() - start, c.elapsed);
    }
}

TEST_F(IoTargetTest, StopCancelsWhatIsInFlightAndHoldsSendsUntilStartOrTimeout)
{
    auto& s = sched::current();
    ULONG_PTR bytes = 0;
    EXPECT_EQ(read(10, &bytes), STATUS_INVALID_DEVICE_STATE) << "never opened";
    EXPECT_EQ(open(u"\\Device\\Missing"), STATUS_OBJECT_NAME_NOT_FOUND);
    ASSERT_EQ(open(), STATUS_SUCCESS);

    complete_after(kNever, 0);
    NTSTATUS status = STATUS_PENDING;
    auto reader = s.spawn("reader", [&] { status = read({}, &bytes); });
    s.sleep_until(s.now() + kMs, "reader sends");
    ASSERT_EQ(status, STATUS_PENDING);
    WdfIoTargetStop(target_, WdfIoTargetCancelSentIo);
    EXPECT_EQ(status, STATUS_CANCELLED) << "ended before the stop returned, and not a timeout";
    EXPECT_EQ(bytes, 3u);
    s.join(reader);
    // Stopping again cancels, and waits for, what was sent past the stopped state.
    status = STATUS_PENDING;
    reader = s.spawn(
        "reader", [&] { status = read({}, &bytes, WDF_REQUEST_SEND_OPTION_IGNORE_TARGET_STATE); });
    s.sleep_until(s.now() + kMs, "reader sends");
    ASSERT_EQ(status, STATUS_PENDING);
    WdfIoTargetStop(target_, WdfIoTargetCancelSentIo);
    EXPECT_EQ(status, STATUS_CANCELLED);
    s.join(reader);

    complete_after(0, 8);
    sched::Nanos start = s.now();
    EXPECT_EQ(read(30, &bytes), STATUS_IO_TIMEOUT) << "stopped until the timeout";
    EXPECT_EQ(s.now() - start, 30 * kMs);
    EXPECT_EQ(device_->dispatched, 2) << "only the cancelled reads went down";
    auto starter = s.spawn("starter", [&] {
        s.sleep_until(s.now() + 20 * kMs, "start later");
        EXPECT_EQ(WdfIoTargetStart(target_), STATUS_SUCCESS);
    });
    start = s.now();
    EXPECT_EQ(read(100, &bytes), STATUS_SUCCESS) << "goes down once started";
    EXPECT_EQ(s.now() - start, 20 * kMs);
    s.join(starter);

    WdfIoTargetClose(target_);
    EXPECT_EQ(read(10, &bytes), STATUS_INVALID_DEVICE_STATE) << "closed";
    EXPECT_EQ(device_->opens, 0) << "closing closed the lower device";
}

NTSTATUS VetoRemoval(WDFIOTARGET)
{
    return STATUS_UNSUCCESSFUL;
}

TEST_F(IoTargetTest, TheTargetHearsItsDevicesRemoval)
{
    enum class Then { Nothing, Cancel, Remove };
    struct Case {
        const char* name;
        PFN_WDF_IO_TARGET_QUERY_REMOVE query_remove;
        Then then;
        NTSTATUS queried;
        WDF_IO_TARGET_STATE state;
        int opens;
        NTSTATUS send;
    };
    const Case cases[] = {
        {"query-remove closes it", nullptr, Then::Nothing, STATUS_SUCCESS,
         WdfIoTargetClosedForQueryRemove, 0, STATUS_INVALID_DEVICE_STATE},
        {"a cancelled removal opens it again", nullptr, Then::Cancel, STATUS_SUCCESS,
         WdfIoTargetStarted, 1, STATUS_SUCCESS},
        {"its driver vetoes", VetoRemoval, Then::Nothing, STATUS_UNSUCCESSFUL, WdfIoTargetStarted,
         1, STATUS_SUCCESS},
        {"remove-complete closes it for good", nullptr, Then::Remove, STATUS_SUCCESS,
         WdfIoTargetDeleted, 0, STATUS_INVALID_DEVICE_STATE},
    };
    device_->serve = [](std::shared_ptr<io::Request> r) { r->complete(STATUS_SUCCESS, 0); };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        io::bind(u"\\Device\\Fake0", device_);
        ASSERT_EQ(WdfIoTargetCreate(make_device(), WDF_NO_OBJECT_ATTRIBUTES, &target_),
                  STATUS_SUCCESS);
        ASSERT_EQ(open(u"\\Device\\Fake0", c.query_remove), STATUS_SUCCESS);
        EXPECT_EQ(io::query_remove(u"\\Device\\Fake0"), c.queried);
        if (c.then == Then::Cancel) {
            io::cancel_remove(u"\\Device\\Fake0");
        } else if (c.then == Then::Remove) {
            io::remove(u"\\Device\\Fake0");
            EXPECT_EQ(open(), STATUS_INVALID_DEVICE_STATE) << "never opened again";
        }
        EXPECT_EQ(WdfIoTargetGetState(target_), c.state);
        EXPECT_EQ(device_->opens, c.opens);
        ULONG_PTR bytes;
        EXPECT_EQ(read(10, &bytes), c.send);
        WdfObjectDelete(target_);
    }
}

} // namespace
} // namespace mvgps::wdf::test
