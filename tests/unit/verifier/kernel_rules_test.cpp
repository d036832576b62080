// Each kernel rule the verifier enforces stops the run with its own bug check, and what the
// rules allow goes through.
#include <wdm.h>

#include <gtest/gtest.h>

#include <functional>

#include "host/sched/sched.h"

namespace mvgps::verifier
{
namespace
{

constexpr ULONG kTag = 0x31676154;    // 'Tag1'
constexpr ULONG kBadTag = 0x31646142; // 'Bad1'

KIRQL raise(KIRQL level)
{
    KIRQL old;
    KeRaiseIrql(level, &old);
    return old;
}

KEVENT* event()
{
    static KEVENT e;
    KeInitializeEvent(&e, NotificationEvent, FALSE);
    return &e;
}

// A fresh spin lock that the calling thread holds.
PKSPIN_LOCK held()
{
    static KSPIN_LOCK l;
    KeInitializeSpinLock(&l);
    KeAcquireSpinLockRaiseToDpc(&l);
    return &l;
}

// A 10-byte block under 'Tag1'.
char* pool(POOL_TYPE type = NonPagedPoolNx)
{
    return static_cast<char*>(ExAllocatePoolWithTag(type, 10, kTag));
}

HANDLE start(PKSTART_ROUTINE routine, PVOID context = nullptr)
{
    HANDLE h;
    PsCreateSystemThread(&h, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, routine, context);
    return h;
}

VOID release_foreign(PVOID l)
{
    KeReleaseSpinLock(static_cast<PKSPIN_LOCK>(l), 0);
}

VOID return_raised(PVOID)
{
    raise(DISPATCH_LEVEL);
}

VOID do_nothing(PVOID) {}

struct Rule {
    std::function<void()> body;
    const char* report; // regular expression over the report
};

TEST(KernelRules, BrokenRulesStopTheRun)
{
    const Rule rules[] = {
        {[] {
             raise(DISPATCH_LEVEL);
             LARGE_INTEGER t{.QuadPart = -500'000}; // 50 ms
             KeWaitForSingleObject(event(), Executive, KernelMode, FALSE, &t);
         },
         "0x000000C4.*DRIVER_VERIFIER_DETECTED_VIOLATION.*KeWaitForSingleObject with a timeout "
         "at DISPATCH_LEVEL"},
        {[] {
             KEVENT e{};
             KeWaitForSingleObject(&e, Executive, KernelMode, FALSE, nullptr);
         },
         "0x000000C4.*not an initialised event or thread"},
        {[] {
             start(release_foreign, held());
             for (KEVENT* e = event();;) {
                 KeSetEvent(e, 0, FALSE); // let it run while this thread keeps the lock
             }
         },
         "SPIN_LOCK_NOT_OWNED.*released by a thread that does not hold it"},
        {[] { KeAcquireSpinLockRaiseToDpc(held()); },
         "SPIN_LOCK_ALREADY_OWNED.*Thread: main\n.*at DISPATCH_LEVEL, holding 1 spin lock.*"
         "Seed:   5 .*main: acquired spin lock"},
        {[] {
             KSPIN_LOCK l;
             KeInitializeSpinLock(&l);
             KeAcquireSpinLockAtDpcLevel(&l);
         },
         "0x000000C4.*KeAcquireSpinLockAtDpcLevel called at PASSIVE_LEVEL"},
        {[] {
             held();
             KeLowerIrql(PASSIVE_LEVEL);
         },
         "0x000000C4.*still holds a spin lock"},
        {[] { raise(raise(DISPATCH_LEVEL)); }, "0x00000009.*IRQL_NOT_GREATER_OR_EQUAL"},
        {[] {
             raise(DISPATCH_LEVEL);
             PAGED_CODE();
         },
         "0x000000D1.*DRIVER_IRQL_NOT_LESS_OR_EQUAL.*pageable code .* runs at DISPATCH_LEVEL"},
        {[] {
             char* p = pool();
             ExFreePoolWithTag(p, kTag);
             ExFreePoolWithTag(p, kTag);
         },
         "0x000000C2 \\(0x0000000000000007.*BAD_POOL_CALLER.*already freed"},
        {[] { ExFreePoolWithTag(pool(), kBadTag); },
         "0x000000C2 \\(0x000000000000000A.*with tag 'Bad1'.*allocated with tag 'Tag1'"},
        {[] { ExAllocatePoolWithTag(NonPagedPoolNx, 8, 0); }, "0x000000C2.*pool tag 0"},
        {[] {
             char* p = pool(PagedPool);
             raise(DISPATCH_LEVEL);
             ExFreePool(p);
         },
         "0x000000C4.*ExFreePool of paged pool at DISPATCH_LEVEL"},
        {[] {
             char* p = pool();
             p[10] = 0;
             ExFreePool(p);
         },
         "SPECIAL_POOL_DETECTED_MEMORY_CORRUPTION.*past the end of the 10-byte block"},
        {[] {
             char* p = pool();
             p[-1] = 0;
             ExFreePool(p);
         },
         "BAD_POOL_HEADER.*header was overwritten"},
        {[] {
             LIST_ENTRY head, a;
             InitializeListHead(&head);
             InsertTailList(&head, &a);
             a.Blink = &a;
             RemoveEntryList(&a);
         },
         "0x00000139.*KERNEL_SECURITY_CHECK_FAILURE.*corrupt list entry"},
        {[] { KeBugCheckEx(0xE2, 1, 2, 3, 4); },
         "0x000000E2 \\(0x0000000000000001, 0x0000000000000002.*called KeBugCheckEx"},
        {[] {
             start(return_raised);
             LARGE_INTEGER t{.QuadPart = -10'000'000}; // 1 s
             KeDelayExecutionThread(KernelMode, FALSE, &t);
         },
         "0x000000C4.*system thread .* returned at DISPATCH_LEVEL"},
        {[] { ZwClose(reinterpret_cast<HANDLE>(0x44)); }, "0x00000093.*INVALID_KERNEL_HANDLE"},
        {[] {
             HANDLE h = start(do_nothing);
             PVOID thread;
             ObReferenceObjectByHandle(h, THREAD_ALL_ACCESS, nullptr, KernelMode, &thread, nullptr);
             KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
             ZwClose(h);
             ObDereferenceObject(thread);
             ObDereferenceObject(thread);
         },
         "0x00000018.*REFERENCE_BY_POINTER"},
    };
    for (const Rule& r : rules) {
        SCOPED_TRACE(r.report);
        EXPECT_DEATH(
            {
                sched::Install s(sched::make_simulated(5));
                r.body();
            },
            r.report);
    }
}

TEST(KernelRules, WhatTheRulesAllow)
{
    sched::Install s(sched::make_simulated(6));
    PKSPIN_LOCK l = held();
    LARGE_INTEGER zero{};
    EXPECT_EQ(KeWaitForSingleObject(event(), Executive, KernelMode, FALSE, &zero), STATUS_TIMEOUT)
        << "polling at DISPATCH_LEVEL";
    KeSetEvent(event(), 0, FALSE);
    ExFreePoolWithTag(pool(), 0);
    KeReleaseSpinLock(l, PASSIVE_LEVEL);
    KIRQL apc = raise(APC_LEVEL);
    PAGED_CODE();
    KeLowerIrql(apc);
}

} // namespace
} // namespace mvgps::verifier
