// Platform services: memory, mutexes, signals, threads and delays behind the Os* calls.
// They report a small result code of their own rather than an NTSTATUS (except where a
// declaration says otherwise) and keep every record in non-paged pool, so that records may
// be touched at raised IRQL.
#pragma once

#include <ntddk.h>
#include <wdf.h>

#include "os/debug_log.h"
#include "os/pool_tags.h"

typedef ULONG OS_STATUS;

#define OS_SUCCESS ((OS_STATUS)0)
#define OS_WAIT_FAILED ((OS_STATUS)1)
#define OS_WAIT_TIMEOUT ((OS_STATUS)3)
#define OS_NO_MEMORY ((OS_STATUS)4)
#define OS_NO_SIGNAL ((OS_STATUS)6)

#define OS_NAME_SIZE 64

// OsSignal.State
#define OS_SIGNAL_SET 1u
#define OS_SIGNAL_CLEAR 2u

struct OsMutex {
    WDFWAITLOCK WaitLock;
    CHAR Name[OS_NAME_SIZE]; // for log messages only; not terminated when cut at 64 bytes
};
static_assert(sizeof(OsMutex) == 72, "a mutex record is one 72-byte block");

struct OsSignal {
    KEVENT Event; // notification event
    // Mirrors the event: OS_SIGNAL_SET or OS_SIGNAL_CLEAR. Set and cleared from different
    // threads, so it is stored with release and read with acquire.
    volatile ULONG State;
    CHAR Name[OS_NAME_SIZE];
};
static_assert(sizeof(OsSignal) == 96, "a signal record is one 96-byte block");

// Allocator statistics, never reset; kept for inspection from a debugger.
extern LONG64 AllocCount;
extern LONG64 AllocBytes;
extern LONG64 AllocFailCount;
extern LONG64 FreeCount;

_IRQL_requires_max_(DISPATCH_LEVEL) OS_STATUS OsAllocateMemory(PVOID* Memory, ULONG Size);
// Reserved is ignored; callers pass 0 or 2.
_IRQL_requires_max_(DISPATCH_LEVEL) OS_STATUS
    OsAllocateZeroedMemory(PVOID* Memory, ULONG Size, ULONG Reserved);
_IRQL_requires_max_(DISPATCH_LEVEL) VOID OsFreeMemory(PVOID* Memory);

// A failed wait-lock creation returns that NTSTATUS and leaves the block allocated in *Mutex
// for the caller's teardown to free.
_IRQL_requires_max_(PASSIVE_LEVEL) OS_STATUS OsAllocateMutex(OsMutex** Mutex, PCSTR Name);
_IRQL_requires_max_(PASSIVE_LEVEL) VOID OsAcquireMutex(OsMutex* Mutex);
_IRQL_requires_max_(PASSIVE_LEVEL) VOID OsReleaseMutex(OsMutex* Mutex);
// Waits for the holder without limit: it is only used at teardown, where that is wanted.
_IRQL_requires_max_(PASSIVE_LEVEL) BOOLEAN OsTryAcquireMutex(OsMutex* Mutex);
_IRQL_requires_max_(PASSIVE_LEVEL) VOID OsFreeMutex(OsMutex** Mutex);

_IRQL_requires_max_(DISPATCH_LEVEL) OS_STATUS OsAllocateSignal(OsSignal** Signal, PCSTR Name);
_IRQL_requires_max_(DISPATCH_LEVEL) VOID OsSetSignal(OsSignal* Signal);
_IRQL_requires_max_(DISPATCH_LEVEL) VOID OsClearSignal(OsSignal* Signal);
// Timeout in milliseconds, 0 for none. The wait leaves the signal set.
_IRQL_requires_max_(PASSIVE_LEVEL) OS_STATUS OsWaitForSignal(OsSignal* Signal, ULONG Timeout);
// Releases any waiter of a clear signal before freeing it.
_IRQL_requires_max_(DISPATCH_LEVEL) VOID OsFreeSignal(OsSignal** Signal);

// Returns an NTSTATUS; on success the caller owns the referenced thread object.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS
    OsCreateThread(PKSTART_ROUTINE StartRoutine, PVOID Context, KPRIORITY Priority,
                   PVOID* ThreadObject);
// Waits until the thread has left the driver's code (a finish signal comes just before it
// does), then releases the object and clears *ThreadObject. Nothing to do when it is NULL.
_IRQL_requires_max_(PASSIVE_LEVEL) VOID OsWaitForThread(PVOID* ThreadObject);
_IRQL_requires_max_(PASSIVE_LEVEL) VOID OsDelay(ULONG Milliseconds);
