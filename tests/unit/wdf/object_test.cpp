#include <string>
#include <vector>

#include "fixture.h"
#include "wdf/faults.h"

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
std::string name_of(WDFOBJECT object)
{
    auto* ctx = GetLockContext(object);
    return ctx ? std::to_string(ctx->Value) : "?";
}
VOID RecordCleanup(WDFOBJECT object)
{
    g_events.push_back("cleanup " + name_of(object));
}
VOID RecordDestroy(WDFOBJECT object)
{
    g_events.push_back("destroy " + name_of(object));
}

using ObjectTest = FrameworkTest;

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

TEST_F(ObjectTest, ContextIsZeroedTypedAndLeadsBackToItsObject)
{
    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, LockContext);
    WDFWAITLOCK lock;
    ASSERT_EQ(WdfWaitLockCreate(&attributes, &lock), STATUS_SUCCESS);

    LockContext* ctx = GetLockContext(lock);
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(ctx->Value, 0u);
    for (UCHAR b : ctx->Bytes) {
        EXPECT_EQ(b, 0);
    }
    EXPECT_EQ(WdfObjectContextGetObject(ctx), static_cast<WDFOBJECT>(lock));
    EXPECT_EQ(GetOtherContext(lock), nullptr) << "a type the object does not carry";

    WDF_OBJECT_ATTRIBUTES_INIT_CONTEXT_TYPE(&attributes, OtherContext);
    PVOID other = nullptr;
    ASSERT_EQ(WdfObjectAllocateContext(lock, &attributes, &other), STATUS_SUCCESS);
    EXPECT_EQ(other, GetOtherContext(lock));
    EXPECT_EQ(WdfObjectAllocateContext(lock, &attributes, &other), STATUS_OBJECT_NAME_EXISTS);
    EXPECT_EQ(GetLockContext(lock), ctx) << "the first context stays where it was";
}

TEST_F(ObjectTest, DeletingAParentDeletesChildrenFirstThenCallsDestroy)
{
    g_events.clear();
    WDFWAITLOCK parent = make_lock(nullptr, 1);
    make_lock(parent, 2);
    WDFWAITLOCK child = make_lock(parent, 3);
    make_lock(child, 4);

    WdfObjectDelete(parent);
    EXPECT_EQ(g_events,
              (std::vector<std::string>{"cleanup 4", "destroy 4", "cleanup 3", "destroy 3",
                                        "cleanup 2", "destroy 2", "cleanup 1", "destroy 1"}));
}

TEST_F(ObjectTest, ObjectsWithoutParentGoWithTheDriver)
{
    g_events.clear();
    make_lock(nullptr, 7);
    std::size_t before = Objects::live_count();
    Objects::get<Driver>(driver_, Kind::Driver, "test")->unload();
    EXPECT_EQ(g_events, (std::vector<std::string>{"cleanup 7", "destroy 7"}));
    EXPECT_EQ(Objects::live_count(), before - 2);
}

TEST_F(ObjectTest, InjectedCreationFailureLeavesNoObject)
{
    faults::add(faults::fail_nth_create(2, Kind::WaitLock));
    std::size_t before = Objects::live_count();
    WDFWAITLOCK first, second, third;
    EXPECT_EQ(WdfWaitLockCreate(WDF_NO_OBJECT_ATTRIBUTES, &first), STATUS_SUCCESS);
    EXPECT_EQ(WdfWaitLockCreate(WDF_NO_OBJECT_ATTRIBUTES, &second), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(second, nullptr);
    EXPECT_EQ(WdfWaitLockCreate(WDF_NO_OBJECT_ATTRIBUTES, &third), STATUS_SUCCESS);
    EXPECT_EQ(Objects::live_count(), before + 2);
    faults::clear();
}

TEST_F(ObjectTest, RandomCreationFaultsReplayFromTheirSeed)
{
    auto pattern = [](std::uint64_t seed) {
        faults::add(faults::fail_random(faults::Site::Create, seed, 0.5));
        std::string out;
        for (int i = 0; i < 32; i++) {
            WDFWAITLOCK lock;
            out += NT_SUCCESS(WdfWaitLockCreate(WDF_NO_OBJECT_ATTRIBUTES, &lock)) ? '.' : 'x';
        }
        faults::clear();
        return out;
    };
    std::string first = pattern(7);
    EXPECT_EQ(pattern(7), first);
    EXPECT_NE(pattern(8), first);
    EXPECT_NE(first.find('x'), std::string::npos);
    EXPECT_NE(first.find('.'), std::string::npos);
}

TEST_F(ObjectTest, RegistryParametersAreReadCaseInsensitively)
{
    system_.parameters[u"BaudRateIndex"] = 115200;
    DECLARE_CONST_UNICODE_STRING(present, u"baudrateindex");
    DECLARE_CONST_UNICODE_STRING(absent, u"Missing");
    WDFKEY key;
    ASSERT_EQ(
        WdfDriverOpenParametersRegistryKey(driver_, GENERIC_READ, WDF_NO_OBJECT_ATTRIBUTES, &key),
        STATUS_SUCCESS);
    ULONG value = 1;
    EXPECT_EQ(WdfRegistryQueryULong(key, &present, &value), STATUS_SUCCESS);
    EXPECT_EQ(value, 115200u);
    EXPECT_EQ(WdfRegistryQueryULong(key, &absent, &value), STATUS_OBJECT_NAME_NOT_FOUND);
    WdfRegistryClose(key);
}

using ObjectDeathTest = ObjectTest;

TEST_F(ObjectDeathTest, MisusedHandlesStopTheRun)
{
    struct Case {
        const char* name;
        void (*misuse)(WDFDRIVER driver);
        const char* report;
    };
    const Case cases[] = {
        {"deleted handle",
         [](WDFDRIVER) {
             WDFWAITLOCK lock;
             WdfWaitLockCreate(WDF_NO_OBJECT_ATTRIBUTES, &lock);
             WdfObjectDelete(lock);
             WdfWaitLockAcquire(lock, nullptr);
         },
         "use of a deleted WDFWAITLOCK"},
        {"wrong handle type",
         [](WDFDRIVER driver) {
             WdfWaitLockAcquire(reinterpret_cast<WDFWAITLOCK>(driver), nullptr);
         },
         "WDFDRIVER passed where WDFWAITLOCK is expected"},
        {"null handle", [](WDFDRIVER) { WdfObjectDelete(nullptr); }, "null framework handle"},
        {"driver object deleted by the driver", [](WDFDRIVER driver) { WdfObjectDelete(driver); },
         "WdfObjectDelete on a WDFDRIVER"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_DEATH(c.misuse(driver_), c.report);
    }
}

} // namespace
} // namespace mvgps::wdf::test
