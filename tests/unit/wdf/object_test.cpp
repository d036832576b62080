#include <algorithm>
#include <string>
#include <vector>

#include "fixture.h"
#include "host/wdf/faults.h"

namespace mvgps::wdf::test
{
namespace
{

struct LockContext {
    ULONG Value;
    UCHAR Bytes[60];
};
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(LockContext, GetLockContext)

struct OtherContext {
    ULONGLONG Word;
};
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(OtherContext, GetOtherContext)

std::vector<std::string> g_events;
VOID RecordCleanup(WDFOBJECT object)
{
    g_events.push_back("cleanup " + std::to_string(GetLockContext(object)->Value));
}
VOID RecordDestroy(WDFOBJECT object)
{
    g_events.push_back("destroy " + std::to_string(GetLockContext(object)->Value));
}

WDFWAITLOCK make_lock(WDFOBJECT parent, ULONG value)
{
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, LockContext);
    attributes.ParentObject = parent;
    attributes.EvtCleanupCallback = RecordCleanup;
    attributes.EvtDestroyCallback = RecordDestroy;
    WDFWAITLOCK lock = nullptr;
    EXPECT_EQ(WdfWaitLockCreate(&attributes, &lock), STATUS_SUCCESS);
    GetLockContext(lock)->Value = value;
    return lock;
}

using ObjectTest = FrameworkTest;

TEST_F(ObjectTest, ContextIsZeroedTypedAndLeadsBackToItsObject)
{
    WDFWAITLOCK lock = make_lock(nullptr, 0);
    LockContext* ctx = GetLockContext(lock);
    EXPECT_EQ(std::count(std::begin(ctx->Bytes), std::end(ctx->Bytes), 0), 60);
    EXPECT_EQ(WdfObjectContextGetObject(ctx), static_cast<WDFOBJECT>(lock));
    EXPECT_EQ(GetOtherContext(lock), nullptr) << "a type the object does not carry";

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, OtherContext);
    PVOID other = nullptr;
    ASSERT_EQ(WdfObjectAllocateContext(lock, &attributes, &other), STATUS_SUCCESS);
    EXPECT_EQ(other, GetOtherContext(lock));
    EXPECT_EQ(WdfObjectAllocateContext(lock, &attributes, &other), STATUS_OBJECT_NAME_EXISTS);
    EXPECT_EQ(GetLockContext(lock), ctx) << "the first context stays where it was";
}

TEST_F(ObjectTest, ChildrenGoBeforeTheirParentAndUnparentedObjectsGoWithTheDriver)
{
    g_events.clear();
    WDFWAITLOCK parent = make_lock(nullptr, 1);
    make_lock(parent, 2);
    make_lock(make_lock(parent, 3), 4);
    make_lock(nullptr, 7);
    std::size_t before = Objects::live_count();

    WdfObjectDelete(parent);
    EXPECT_EQ(g_events,
              (std::vector<std::string>{"cleanup 4", "destroy 4", "cleanup 3", "destroy 3",
                                        "cleanup 2", "destroy 2", "cleanup 1", "destroy 1"}));
    g_events.clear();
    Objects::get<Driver>(driver_, Kind::Driver, "test")->unload();
    EXPECT_EQ(g_events, (std::vector<std::string>{"cleanup 7", "destroy 7"}));
    EXPECT_EQ(Objects::live_count(), before - 6) << "four locks, the last one and the driver";
}

TEST_F(ObjectTest, RandomCreationFaultsReplayFromTheirSeedAndLeaveNoObject)
{
    auto pattern = [](std::uint64_t seed) {
        faults::add(faults::fail_random(faults::Site::Create, seed, 0.5));
        std::size_t before = Objects::live_count();
        std::string out;
        for (int i = 0; i < 32; i++) {
            WDFWAITLOCK lock;
            bool made = NT_SUCCESS(WdfWaitLockCreate(WDF_NO_OBJECT_ATTRIBUTES, &lock));
            EXPECT_EQ(made, lock != nullptr);
            out += made ? '.' : 'x';
        }
        EXPECT_EQ(Objects::live_count() - before,
                  static_cast<std::size_t>(std::count(out.begin(), out.end(), '.')));
        faults::clear();
        return out;
    };
    std::string first = pattern(7);
    EXPECT_EQ(pattern(7), first);
    EXPECT_NE(pattern(8), first);
    EXPECT_NE(first.find('x'), std::string::npos);
    EXPECT_NE(first.find('.'), std::string::npos);
}

// While the test holds the lock, a waiter gives up at its timeout (at once for 0), or without
// one gets the lock when it is released; a free lock is taken even with a zero timeout.
TEST_F(ObjectTest, WaitLockWaitersGetItOnReleaseOrGiveUpAtTheirTimeout)
{
    constexpr LONGLONG kUntilReleased = -1;
    struct Case {
        LONGLONG timeout_ms;
        NTSTATUS status;
        sched::Nanos waited;
    };
    const Case cases[] = {{0, STATUS_TIMEOUT, 0},
                          {10, STATUS_TIMEOUT, 10 * sched::kMillisecond},
                          {kUntilReleased, STATUS_SUCCESS, 20 * sched::kMillisecond}};
    WDFWAITLOCK lock;
    ASSERT_EQ(WdfWaitLockCreate(WDF_NO_OBJECT_ATTRIBUTES, &lock), STATUS_SUCCESS);
    ASSERT_EQ(WdfWaitLockAcquire(lock, nullptr), STATUS_SUCCESS);
    auto& s = sched::current();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.timeout_ms);
        NTSTATUS status = STATUS_PENDING;
        sched::Nanos waited = -1;
        auto* waiter = s.spawn("waiter", [&] {
            LONGLONG timeout = -c.timeout_ms * 10'000;
            sched::Nanos start = s.now();
            status = WdfWaitLockAcquire(lock, c.timeout_ms == kUntilReleased ? nullptr : &timeout);
            waited = s.now() - start;
            if (status == STATUS_SUCCESS) {
                WdfWaitLockRelease(lock);
            }
        });
        if (c.timeout_ms == kUntilReleased) {
            s.sleep_until(s.now() + 20 * sched::kMillisecond, "holding the lock");
            WdfWaitLockRelease(lock);
        }
        s.join(waiter);
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(waited, c.waited);
    }
    LONGLONG zero = 0;
    EXPECT_EQ(WdfWaitLockAcquire(lock, &zero), STATUS_SUCCESS) << "a free lock is taken at once";
    WdfWaitLockRelease(lock);
}

} // namespace
} // namespace mvgps::wdf::test
