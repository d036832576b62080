// Each kernel rule the verifier enforces stops the run with its own bug check, and what the
// rules allow goes through.
#include <wdm.h>

#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "sched/sched.h"

namespace mvgps::verifier
{
namespace
{

constexpr ULONG kTag = 0x31676154;    // 'Tag1'
constexpr ULONG kBadTag = 0x31646142; // 'Bad1'

LARGE_INTEGER ms(LONGLONG n)
{
    LARGE_INTEGER t;
    t.QuadPart = -n * 10'000;
    return t;
}

KEVENT make_event()
{
    KEVENT e;
    KeInitializeEvent(&e, NotificationEvent, FALSE);
    return e;
}

// Lets other threads run while this one stays at its IRQL.
[[noreturn]] void spin()
{
    KEVENT e = make_event();
    for (;;) {
        KeSetEvent(&e, 0, FALSE);
    }
}

VOID release_foreign(PVOID lock)
{
    KeReleaseSpinLock(static_cast<PKSPIN_LOCK>(lock), 0);
}

VOID return_raised(PVOID)
{
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
}

VOID do_nothing(PVOID) {}

struct Rule {
    const char* name;
    std::function<void()> body;
    const char* report; // regular expression over the report
};

TEST(KernelRules, BrokenRulesStopTheRun)
{
    const Rule rules[] = {
        {"wait with a timeout at DISPATCH_LEVEL",
         [] {
             KEVENT e = make_event();
             KIRQL old;
             KeRaiseIrql(DISPATCH_LEVEL, &old);
             LARGE_INTEGER t = ms(50);
             KeWaitForSingleObject(&e, Executive, KernelMode, FALSE, &t);
         },
         "0x000000C4.*DRIVER_VERIFIER_DETECTED_VIOLATION.*KeWaitForSingleObject with a timeout "
         "at DISPATCH_LEVEL"},
        {"wait forever at DISPATCH_LEVEL",
         [] {
             KEVENT e = make_event();
             KIRQL old;
             KeRaiseIrql(DISPATCH_LEVEL, &old);
             KeWaitForSingleObject(&e, Executive, KernelMode, FALSE, nullptr);
         },
         "0x000000C4.*without a timeout at DISPATCH_LEVEL"},
        {"delay under a spin lock",
         [] {
             KSPIN_LOCK lock;
             KeInitializeSpinLock(&lock);
             KeAcquireSpinLockRaiseToDpc(&lock);
             LARGE_INTEGER t = ms(1);
             KeDelayExecutionThread(KernelMode, FALSE, &t);
         },
         "0x000000C4.*KeDelayExecutionThread with a timeout at DISPATCH_LEVEL"},
        {"wait on an event never initialised",
         [] {
             KEVENT e;
             std::memset(&e, 0, sizeof e);
             KeWaitForSingleObject(&e, Executive, KernelMode, FALSE, nullptr);
         },
         "0x000000C4.*not an initialised event or thread"},
        {"spin lock released by another thread",
         [] {
             KSPIN_LOCK lock;
             KeInitializeSpinLock(&lock);
             KeAcquireSpinLockRaiseToDpc(&lock);
             HANDLE h;
             PsCreateSystemThread(&h, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, release_foreign,
                                  &lock);
             spin();
         },
         "SPIN_LOCK_NOT_OWNED.*released by a thread that does not hold it"},
        {"spin lock released while free",
         [] {
             KSPIN_LOCK lock;
             KeInitializeSpinLock(&lock);
             KeReleaseSpinLock(&lock, PASSIVE_LEVEL);
         },
         "SPIN_LOCK_NOT_OWNED.*released while it is free"},
        {"spin lock acquired twice",
         [] {
             KSPIN_LOCK lock;
             KeInitializeSpinLock(&lock);
             KeAcquireSpinLockRaiseToDpc(&lock);
             KeAcquireSpinLockRaiseToDpc(&lock);
         },
         "SPIN_LOCK_ALREADY_OWNED.*Thread: main.*at DISPATCH_LEVEL, holding 1 spin lock"},
        {"spin lock at DPC level from PASSIVE_LEVEL",
         [] {
             KSPIN_LOCK lock;
             KeInitializeSpinLock(&lock);
             KeAcquireSpinLockAtDpcLevel(&lock);
         },
         "0x000000C4.*KeAcquireSpinLockAtDpcLevel called at PASSIVE_LEVEL"},
        {"IRQL lowered while a spin lock is held",
         [] {
             KSPIN_LOCK lock;
             KeInitializeSpinLock(&lock);
             KeAcquireSpinLockRaiseToDpc(&lock);
             KeLowerIrql(PASSIVE_LEVEL);
         },
         "0x000000C4.*still holds a spin lock"},
        {"IRQL raised to a lower level",
         [] {
             KIRQL old;
             KeRaiseIrql(DISPATCH_LEVEL, &old);
             KeRaiseIrql(PASSIVE_LEVEL, &old);
         },
         "0x00000009.*IRQL_NOT_GREATER_OR_EQUAL"},
        {"pageable code at DISPATCH_LEVEL",
         [] {
             KIRQL old;
             KeRaiseIrql(DISPATCH_LEVEL, &old);
             PAGED_CODE();
         },
         "0x000000D1.*DRIVER_IRQL_NOT_LESS_OR_EQUAL.*pageable code .* runs at DISPATCH_LEVEL"},
        {"pool freed twice",
         [] {
             void* p = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTag);
             ExFreePoolWithTag(p, kTag);
             ExFreePoolWithTag(p, kTag);
         },
         "0x000000C2 \\(0x0000000000000007.*BAD_POOL_CALLER.*already freed"},
        {"free of memory that is not pool",
         [] {
             static char not_pool[32];
             ExFreePoolWithTag(not_pool + 16, 0);
         },
         "0x000000C2.*BAD_POOL_CALLER.*not pool"},
        {"pool freed with the wrong tag",
         [] {
             void* p = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTag);
             ExFreePoolWithTag(p, kBadTag);
         },
         "0x000000C2 \\(0x000000000000000A.*with tag 'Bad1'.*allocated with tag 'Tag1'"},
        {"pool allocated with tag 0", [] { ExAllocatePoolWithTag(NonPagedPoolNx, 8, 0); },
         "0x000000C2.*pool tag 0"},
        {"pool allocated above DISPATCH_LEVEL",
         [] {
             KIRQL old;
             KeRaiseIrql(HIGH_LEVEL, &old);
             ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTag);
         },
         "0x000000C4.*ExAllocatePoolWithTag at a device IRQL"},
        {"paged pool freed at DISPATCH_LEVEL",
         [] {
             void* p = ExAllocatePoolWithTag(PagedPool, 8, kTag);
             KIRQL old;
             KeRaiseIrql(DISPATCH_LEVEL, &old);
             ExFreePool(p);
         },
         "0x000000C4.*ExFreePool of paged pool at DISPATCH_LEVEL"},
        {"write past the end of a block",
         [] {
             auto* p = static_cast<char*>(ExAllocatePoolWithTag(NonPagedPoolNx, 10, kTag));
             p[10] = 0;
             ExFreePool(p);
         },
         "SPECIAL_POOL_DETECTED_MEMORY_CORRUPTION.*past the end of the 10-byte block"},
        {"write before the start of a block",
         [] {
             auto* p = static_cast<char*>(ExAllocatePoolWithTag(NonPagedPoolNx, 10, kTag));
             p[-1] = 0;
             ExFreePool(p);
         },
         "BAD_POOL_HEADER.*header was overwritten"},
        {"corrupt list entry",
         [] {
             LIST_ENTRY head, a;
             InitializeListHead(&head);
             InsertTailList(&head, &a);
             a.Blink = &a;
             RemoveEntryList(&a);
         },
         "0x00000139.*KERNEL_SECURITY_CHECK_FAILURE.*corrupt list entry"},
        {"KeBugCheckEx", [] { KeBugCheckEx(0xE2, 1, 2, 3, 4); },
         "0x000000E2 \\(0x0000000000000001, 0x0000000000000002.*called KeBugCheckEx"},
        {"system thread returning at DISPATCH_LEVEL",
         [] {
             HANDLE h;
             PsCreateSystemThread(&h, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, return_raised,
                                  nullptr);
             LARGE_INTEGER t = ms(1000);
             KeDelayExecutionThread(KernelMode, FALSE, &t);
         },
         "0x000000C4.*system thread .* returned at DISPATCH_LEVEL"},
        {"closing a handle that is not open", [] { ZwClose(reinterpret_cast<HANDLE>(0x44)); },
         "0x00000093.*INVALID_KERNEL_HANDLE"},
        {"one dereference too many",
         [] {
             HANDLE h;
             PsCreateSystemThread(&h, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr, do_nothing,
                                  nullptr);
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
        SCOPED_TRACE(r.name);
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
    KSPIN_LOCK lock;
    KeInitializeSpinLock(&lock);
    KEVENT e = make_event();
    KIRQL old = KeAcquireSpinLockRaiseToDpc(&lock);
    LARGE_INTEGER zero{};
    EXPECT_EQ(KeWaitForSingleObject(&e, Executive, KernelMode, FALSE, &zero), STATUS_TIMEOUT)
        << "polling at DISPATCH_LEVEL";
    KeSetEvent(&e, 0, FALSE);
    KeClearEvent(&e);
    void* p = ExAllocatePoolWithTag(NonPagedPoolNx, 8, kTag);
    ExFreePoolWithTag(p, 0);
    KeReleaseSpinLock(&lock, old);
    KIRQL apc;
    KeRaiseIrql(APC_LEVEL, &apc);
    PAGED_CODE();
    KeLowerIrql(apc);
}

} // namespace
} // namespace mvgps::verifier
