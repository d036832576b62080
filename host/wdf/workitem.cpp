// Work items: a callback run later on a system worker thread. Items of one device run one
// at a time; deleting an item waits for its callback to finish.
#include <vector>

#include "host/wdf/device.h"
#include "host/wdf/rules.h"

namespace mvgps::wdf
{
namespace
{

class WorkItem final : public Object
{
  public:
    explicit WorkItem(const WDF_WORKITEM_CONFIG& config) : Object(Kind::WorkItem), config(config) {}

    WDF_WORKITEM_CONFIG config;
    bool queued = false;
    sched::Thread* runner = nullptr;
    std::vector<sched::Thread*> threads;

    void run()
    {
        auto& s = sched::current();
        Device* dev = config.AutomaticSerialization ? device() : nullptr;
        if (dev) {
            dev->work_lock().lock();
        }
        {
            sched::StateLock lock(s);
            queued = false;
            runner = s.self();
        }
        call_driver("EvtWorkItemFunc", config.EvtWorkItemFunc, static_cast<WDFWORKITEM>(handle()));
        {
            sched::StateLock lock(s);
            runner = nullptr;
        }
        if (dev) {
            dev->work_lock().unlock();
        }
    }

    // Waits until every run has ended, unless the caller is the callback itself.
    void flush()
    {
        auto& s = sched::current();
        std::vector<sched::Thread*> runs;
        {
            sched::StateLock lock(s);
            if (runner == s.self()) {
                return;
            }
            runs.swap(threads);
        }
        for (sched::Thread* t : runs) {
            s.join(t);
        }
    }

    void teardown() override { flush(); }
};

WorkItem* item_of(WDFWORKITEM handle, const char* call)
{
    return Objects::get<WorkItem>(handle, Kind::WorkItem, call);
}

} // namespace
} // namespace mvgps::wdf

using namespace mvgps;
using namespace mvgps::wdf;

extern "C" {

NTSTATUS WdfWorkItemCreate(PWDF_WORKITEM_CONFIG Config, PWDF_OBJECT_ATTRIBUTES Attributes,
                           WDFWORKITEM* WorkItem)
{
    if (!Config || Config->Size != sizeof(WDF_WORKITEM_CONFIG) || !Config->EvtWorkItemFunc ||
        !WorkItem || !Attributes || !Attributes->ParentObject) {
        return STATUS_INVALID_PARAMETER; // a work item needs a parent
    }
    *WorkItem = nullptr;
    auto item = std::make_shared<wdf::WorkItem>(*Config);
    NTSTATUS status = Objects::attach(item, Attributes, nullptr);
    if (NT_SUCCESS(status)) {
        *WorkItem = static_cast<WDFWORKITEM>(item->handle());
    }
    return status;
}

VOID WdfWorkItemEnqueue(WDFWORKITEM WorkItem)
{
    wdf::WorkItem* item = item_of(WorkItem, "WdfWorkItemEnqueue");
    auto& s = sched::current();
    {
        sched::StateLock lock(s);
        if (item->queued) {
            return;
        }
        item->queued = true;
    }
    auto hold = std::static_pointer_cast<wdf::WorkItem>(Objects::hold(item));
    sched::Thread* thread = s.spawn("work item", [hold] { hold->run(); });
    sched::StateLock lock(s);
    item->threads.push_back(thread);
}

WDFOBJECT WdfWorkItemGetParentObject(WDFWORKITEM WorkItem)
{
    return item_of(WorkItem, "WdfWorkItemGetParentObject")->parent()->handle();
}

VOID WdfWorkItemFlush(WDFWORKITEM WorkItem)
{
    item_of(WorkItem, "WdfWorkItemFlush")->flush();
}

} // extern "C"
