// System threads: they run their routine at PASSIVE_LEVEL, carry its name, and their
// objects signal when they end.
#include <wdm.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "kernel/kernel.h"
#include "kernel_test.h"
#include "sched/sched.h"

// Exported from the test program, as a driver image exports its thread routines.
extern "C" VOID StartFunc_Named(PVOID context)
{
    auto& s = mvgps::sched::current();
    *static_cast<std::string*>(context) = s.name(s.self());
}

namespace mvgps::kernel::test
{
namespace
{

VOID internal_routine(PVOID context)
{
    StartFunc_Named(context);
}

struct Started {
    HANDLE handle = nullptr;
    PVOID object = nullptr;
};

Started start(PKSTART_ROUTINE routine, PVOID context)
{
    Started t;
    EXPECT_EQ(PsCreateSystemThread(&t.handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, routine,
                                   context),
              STATUS_SUCCESS);
    EXPECT_EQ(ObReferenceObjectByHandle(t.handle, THREAD_ALL_ACCESS, *PsThreadType, KernelMode,
                                        &t.object, nullptr),
              STATUS_SUCCESS);
    return t;
}

void finish(Started& t)
{
    EXPECT_EQ(KeWaitForSingleObject(t.object, Executive, KernelMode, FALSE, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(t.handle), STATUS_SUCCESS);
    ObDereferenceObject(t.object);
}

TEST(SystemThread, IsNamedAfterItsStartRoutine)
{
    sched::Install s(sched::make_simulated(21));
    struct Case {
        PKSTART_ROUTINE routine;
        const char* expected; // regular expression
    };
    const Case cases[] = {
        {StartFunc_Named, "^StartFunc_Named$"},
        {internal_routine, "^kernel_unit\\+0x[0-9a-f]+$"}, // not exported: where it lies
    };
    for (const Case& c : cases) {
        std::string name;
        Started t = start(c.routine, &name);
        finish(t);
        EXPECT_THAT(name, testing::MatchesRegex(c.expected));
    }
}

TEST(SystemThread, RunsAtPassiveAndSignalsItsObjectAtExit)
{
    sched::Install s(sched::make_simulated(22));
    KEVENT go;
    KeInitializeEvent(&go, NotificationEvent, FALSE);
    KIRQL irql = HIGH_LEVEL;
    SystemThread t([&] {
        irql = KeGetCurrentIrql();
        KeWaitForSingleObject(&go, Executive, KernelMode, FALSE, nullptr);
    });
    LARGE_INTEGER zero{};
    EXPECT_EQ(KeWaitForSingleObject(t.object(), Executive, KernelMode, FALSE, &zero),
              STATUS_TIMEOUT);
    KeSetEvent(&go, 0, FALSE);
    t.join();
    EXPECT_EQ(irql, PASSIVE_LEVEL);
    EXPECT_EQ(KeWaitForSingleObject(t.object(), Executive, KernelMode, FALSE, &zero),
              STATUS_SUCCESS)
        << "an ended thread stays signalled";
}

TEST(SystemThread, HandleLookups)
{
    sched::Install s(sched::make_simulated(23));
    std::string name;
    Started t = start(StartFunc_Named, &name);
    struct Case {
        const char* name;
        HANDLE handle;
        POBJECT_TYPE type;
        NTSTATUS expected;
    };
    const Case cases[] = {
        {"thread handle, any type", t.handle, nullptr, STATUS_SUCCESS},
        {"thread handle, thread type", t.handle, *PsThreadType, STATUS_SUCCESS},
        {"thread handle, another type", t.handle, reinterpret_cast<POBJECT_TYPE>(&name),
         STATUS_OBJECT_TYPE_MISMATCH},
        {"unknown handle", reinterpret_cast<HANDLE>(0x1234), nullptr, STATUS_INVALID_HANDLE},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        PVOID object = nullptr;
        EXPECT_EQ(ObReferenceObjectByHandle(c.handle, THREAD_ALL_ACCESS, c.type, KernelMode,
                                            &object, nullptr),
                  c.expected);
        if (NT_SUCCESS(c.expected)) {
            EXPECT_EQ(object, t.object);
            ObDereferenceObject(object);
        }
    }
    finish(t);
}

TEST(SystemThread, PriorityIsRecorded)
{
    sched::Install s(sched::make_simulated(24));
    PKTHREAD self = KeGetCurrentThread();
    EXPECT_EQ(self, KeGetCurrentThread());
    KPRIORITY old = KeSetPriorityThread(self, 15);
    EXPECT_EQ(KeSetPriorityThread(self, old), 15);
}

// The driver keeps its thread reference for good; that is host bookkeeping, not pool.
TEST(SystemThread, LeakedReferenceIsNotPool)
{
    sched::Install s(sched::make_simulated(25));
    LeakReport before = leak_report();
    std::string name;
    Started t = start(StartFunc_Named, &name);
    KeWaitForSingleObject(t.object, Executive, KernelMode, FALSE, nullptr);
    ZwClose(t.handle);
    EXPECT_EQ(leak_report().text, before.text);
}

} // namespace
} // namespace mvgps::kernel::test
