#include "fixture.h"
#include "host/kernel/kernel.h"

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
    };
    WDFDEVICE device = make_device();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.report);
        EXPECT_DEATH(c.misuse(driver_, device), c.report);
    }
}

} // namespace
} // namespace mvgps::wdf::test
