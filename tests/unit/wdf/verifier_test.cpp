#include "fixture.h"
#include "io/names.h"
#include "kernel/kernel.h"

namespace mvgps::wdf::test
{
namespace
{

WDFWAITLOCK new_lock()
{
    WDFWAITLOCK lock = nullptr;
    WdfWaitLockCreate(WDF_NO_OBJECT_ATTRIBUTES, &lock);
    return lock;
}

// A device that never completes what it is sent.
struct SilentDevice : io::Device {
    struct Silent : io::File {
        void dispatch(std::shared_ptr<io::Request>) override {}
    };
    NTSTATUS open(const io::OpenParams&, std::unique_ptr<io::File>& file) override
    {
        file = std::make_unique<Silent>();
        return STATUS_SUCCESS;
    }
};

// Sends `request` to a silent device on a thread of its own, then again from the caller.
void send_twice(WDFDEVICE device, WDFREQUEST request)
{
    io::bind(u"\\Device\\Silent", std::make_shared<SilentDevice>());
    WDFIOTARGET target = nullptr;
    WdfIoTargetCreate(device, WDF_NO_OBJECT_ATTRIBUTES, &target);
    UNICODE_STRING name;
    RtlInitUnicodeString(&name, reinterpret_cast<PCWSTR>(u"\\Device\\Silent"));
    WDF_IO_TARGET_OPEN_PARAMS params;
    WDF_IO_TARGET_OPEN_PARAMS_INIT_OPEN_BY_NAME(&params, &name, STANDARD_RIGHTS_ALL);
    WdfIoTargetOpen(target, &params);
    auto send = [target, request] {
        WdfIoTargetSendIoctlSynchronously(target, request, 1, nullptr, nullptr, nullptr, nullptr);
    };
    auto& s = sched::current();
    s.spawn("first send", send);
    s.sleep_until(s.now() + sched::kMillisecond, "first send");
    send();
}

using VerifierDeathTest = FrameworkTest;

TEST_F(VerifierDeathTest, EachMisuseStopsTheRunWithItsRule)
{
    struct Case {
        const char* report;
        void (*misuse)(WDFDRIVER driver, WDFDEVICE device);
    };
    const Case cases[] = {
        {"use of a deleted WDFWAITLOCK",
         [](WDFDRIVER, WDFDEVICE) {
             WDFWAITLOCK lock = new_lock();
             WdfObjectDelete(lock);
             WdfWaitLockAcquire(lock, nullptr);
         }},
        {"WDFDRIVER passed where WDFWAITLOCK is expected",
         [](WDFDRIVER driver, WDFDEVICE) {
             WdfWaitLockAcquire(reinterpret_cast<WDFWAITLOCK>(driver), nullptr);
         }},
        {"null framework handle", [](WDFDRIVER, WDFDEVICE) { WdfObjectDelete(nullptr); }},
        {"WdfObjectDelete on a WDFDRIVER",
         [](WDFDRIVER driver, WDFDEVICE) { WdfObjectDelete(driver); }},
        {"WdfObjectDelete on a WDFQUEUE the framework owns",
         [](WDFDRIVER, WDFDEVICE device) {
             WDF_IO_QUEUE_CONFIG config;
             WDF_IO_QUEUE_CONFIG_INIT_DEFAULT_QUEUE(&config, WdfIoQueueDispatchParallel);
             WDFQUEUE queue = nullptr;
             WdfIoQueueCreate(device, &config, WDF_NO_OBJECT_ATTRIBUTES, &queue);
             WdfObjectDelete(queue);
         }},
        {"it made it; delete it instead",
         [](WDFDRIVER, WDFDEVICE) {
             WDFREQUEST request = nullptr;
             WdfRequestCreate(WDF_NO_OBJECT_ATTRIBUTES, nullptr, &request);
             WdfRequestComplete(request, STATUS_SUCCESS);
         }},
        {"wait lock taken above APC_LEVEL",
         [](WDFDRIVER, WDFDEVICE) {
             KSPIN_LOCK spin;
             KeInitializeSpinLock(&spin);
             KeAcquireSpinLockRaiseToDpc(&spin);
             WdfWaitLockAcquire(new_lock(), nullptr);
         }},
        {"does not hold it", [](WDFDRIVER, WDFDEVICE) { WdfWaitLockRelease(new_lock()); }},
        {"WDF_VIOLATION.*WdfIoTargetSendIoctlSynchronously with a request still in flight",
         [](WDFDRIVER, WDFDEVICE device) {
             WDFREQUEST request = nullptr;
             WdfRequestCreate(WDF_NO_OBJECT_ATTRIBUTES, nullptr, &request);
             send_twice(device, request);
         }},
    };
    WDFDEVICE device = make_device();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.report);
        EXPECT_DEATH(c.misuse(driver_, device), c.report);
    }
}

} // namespace
} // namespace mvgps::wdf::test
