// Drop-in subset of the kernel's wdm.h for the user-mode host: the names, signatures and x64
// record sizes that driver code relies on. Only what this driver uses is declared.
#pragma once

#include <stddef.h>
#include <stdint.h>

// ---------------------------------------------------------------------------------------
// Annotations and calling conventions (no meaning outside the real toolchain)
// ---------------------------------------------------------------------------------------
#define NTAPI
#define NTSYSAPI
#define NTKERNELAPI
#define FORCEINLINE inline __attribute__((always_inline))
#define DECLSPEC_NORETURN __attribute__((noreturn))
#define DECLSPEC_NOINLINE __attribute__((noinline))
#define UNREFERENCED_PARAMETER(P) ((void)(P))
#define _In_
#define _In_opt_
#define _In_z_
#define _In_reads_(n)
#define _In_reads_bytes_(n)
#define _In_reads_bytes_opt_(n)
#define _Out_
#define _Out_opt_
#define _Out_writes_(n)
#define _Out_writes_bytes_(n)
#define _Out_writes_bytes_opt_(n)
#define _Out_writes_bytes_to_(n, m)
#define _Inout_
#define _Inout_opt_
#define _Outptr_
#define _Outptr_opt_
#define _Outptr_result_maybenull_
#define _Outptr_result_bytebuffer_(n)
#define _Outptr_opt_result_bytebuffer_(n)
#define _Printf_format_string_
#define _Must_inspect_result_
#define _Success_(e)
#define _When_(e, a)
#define _Use_decl_annotations_
#define _Function_class_(n)
#define _IRQL_requires_(i)
#define _IRQL_requires_max_(i)
#define _IRQL_requires_min_(i)
#define _IRQL_raises_(i)
#define _IRQL_saves_
#define _IRQL_restores_
#define _IRQL_always_function_max_(i)
#define _Requires_lock_held_(l)
#define _Requires_lock_not_held_(l)
#define _Acquires_lock_(l)
#define _Releases_lock_(l)
#define _Guarded_by_(l)
#define _Interlocked_
#define _Post_invalid_
#define _Post_writable_byte_size_(n)
#define _Post_maybenull_
#define _Null_terminated_
#define _NullNull_terminated_
#define _Kernel_float_saved_
#define __drv_aliasesMem
#define __drv_freesMem(k)
#define __drv_allocatesMem(k)
#define __drv_maxIRQL(i)
#define __drv_when(c, a)
#define __drv_reportError(e)
#define __drv_strictTypeMatch(m)
#define __drv_strictType(t, m)
#define __drv_dispatchType(t)
#define _Dispatch_type_(t)

#ifdef __cplusplus
#define EXTERN_C extern "C"
#define EXTERN_C_START extern "C" {
#define EXTERN_C_END }
#else
#define EXTERN_C extern
#define EXTERN_C_START
#define EXTERN_C_END
#endif

// ---------------------------------------------------------------------------------------
// Basic types (LLP64 sizes: LONG and ULONG are 32 bits)
// ---------------------------------------------------------------------------------------
typedef void VOID, *PVOID, **PPVOID;
typedef const void* PCVOID;
typedef char CHAR, *PCHAR, *PSTR, *PSZ;
typedef const char *PCSTR, *PCSZ;
typedef unsigned char UCHAR, *PUCHAR, BYTE, *PBYTE;
typedef int16_t SHORT, CSHORT, *PSHORT;
typedef uint16_t USHORT, *PUSHORT, WORD;
typedef int32_t LONG, *PLONG, INT, NTSTATUS, *PNTSTATUS, KPRIORITY;
typedef uint32_t ULONG, *PULONG, UINT, DWORD, *PDWORD, ACCESS_MASK, *PACCESS_MASK;
typedef int64_t LONGLONG, *PLONGLONG, LONG64, *PLONG64;
typedef uint64_t ULONGLONG, *PULONGLONG, ULONG64, *PULONG64, DWORD64;
typedef int64_t LONG_PTR, *PLONG_PTR;
typedef uint64_t ULONG_PTR, *PULONG_PTR, SIZE_T, *PSIZE_T, KAFFINITY;
typedef UCHAR BOOLEAN, *PBOOLEAN;
typedef PVOID HANDLE, *PHANDLE;
typedef CHAR CCHAR;
#if __SIZEOF_WCHAR_T__ == 2
typedef wchar_t WCHAR; // driver code: built with a 2-byte wchar_t, so L"" literals fit
#else
typedef char16_t WCHAR; // host code: the same layout under its own name
#endif
typedef WCHAR *PWCHAR, *PWSTR, *PWCH, *PZZWSTR;
typedef const WCHAR *PCWSTR, *PCWCH, *PCZZWSTR;
typedef ULONG LOGICAL;

static_assert(sizeof(LONG) == 4 && sizeof(ULONG_PTR) == 8 && sizeof(WCHAR) == 2,
              "the host reproduces the x64 data model");

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif
#ifndef NULL
#define NULL nullptr
#endif

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    };
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef union _ULARGE_INTEGER {
    struct {
        ULONG LowPart;
        ULONG HighPart;
    };
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

typedef struct _GUID {
    ULONG Data1;
    USHORT Data2;
    USHORT Data3;
    UCHAR Data4[8];
} GUID, *LPGUID;
typedef const GUID* LPCGUID;
typedef const GUID& REFGUID;

#ifdef __cplusplus
inline bool IsEqualGUID(REFGUID a, REFGUID b)
{
    return __builtin_memcmp(&a, &b, sizeof(GUID)) == 0;
}
inline bool operator==(REFGUID a, REFGUID b)
{
    return IsEqualGUID(a, b);
}
#endif

// DEFINE_GUID declares the GUID; after <initguid.h> it also defines it.
#ifdef INITGUID
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8)                               \
    EXTERN_C __attribute__((weak)) const GUID name = {l, w1, w2, {b1, b2, b3, b4, b5, b6, b7, b8}}
#else
#define DEFINE_GUID(name, l, w1, w2, b1, b2, b3, b4, b5, b6, b7, b8) EXTERN_C const GUID name
#endif

#define FIELD_OFFSET(type, field) ((LONG)offsetof(type, field))
#define RTL_FIELD_SIZE(type, field) (sizeof(((type*)0)->field))
#define RTL_NUMBER_OF(a) (sizeof(a) / sizeof((a)[0]))
#define ARRAYSIZE(a) RTL_NUMBER_OF(a)
// The field's offset from the compiler rather than from a member of a null pointer, which
// the undefined-behaviour sanitizer reports when the optimiser leaves it to run time.
#define CONTAINING_RECORD(address, type, field)                                                    \
    ((type*)((PCHAR)(address) - (ULONG_PTR) __builtin_offsetof(type, field)))

// ---------------------------------------------------------------------------------------
// Status values
// ---------------------------------------------------------------------------------------
#define NT_SUCCESS(Status) (((NTSTATUS)(Status)) >= 0)
#define NT_INFORMATION(Status) ((((ULONG)(Status)) >> 30) == 1)
#define NT_WARNING(Status) ((((ULONG)(Status)) >> 30) == 2)
#define NT_ERROR(Status) ((((ULONG)(Status)) >> 30) == 3)

#define STATUS_SUCCESS ((NTSTATUS)0x00000000L)
#define STATUS_WAIT_0 ((NTSTATUS)0x00000000L)
#define STATUS_ALERTED ((NTSTATUS)0x00000101L)
#define STATUS_TIMEOUT ((NTSTATUS)0x00000102L)
#define STATUS_PENDING ((NTSTATUS)0x00000103L)
#define STATUS_REPARSE ((NTSTATUS)0x00000104L)
#define STATUS_OBJECT_NAME_EXISTS ((NTSTATUS)0x40000000L)
#define STATUS_BUFFER_OVERFLOW ((NTSTATUS)0x80000005L)
#define STATUS_NO_MORE_ENTRIES ((NTSTATUS)0x8000001AL)
#define STATUS_UNSUCCESSFUL ((NTSTATUS)0xC0000001L)
#define STATUS_NOT_IMPLEMENTED ((NTSTATUS)0xC0000002L)
#define STATUS_INVALID_HANDLE ((NTSTATUS)0xC0000008L)
#define STATUS_INVALID_PARAMETER ((NTSTATUS)0xC000000DL)
#define STATUS_NO_SUCH_DEVICE ((NTSTATUS)0xC000000EL)
#define STATUS_INVALID_DEVICE_REQUEST ((NTSTATUS)0xC0000010L)
#define STATUS_NO_MEMORY ((NTSTATUS)0xC0000017L)
#define STATUS_ACCESS_DENIED ((NTSTATUS)0xC0000022L)
#define STATUS_BUFFER_TOO_SMALL ((NTSTATUS)0xC0000023L)
#define STATUS_OBJECT_TYPE_MISMATCH ((NTSTATUS)0xC0000024L)
#define STATUS_OBJECT_NAME_INVALID ((NTSTATUS)0xC0000033L)
#define STATUS_OBJECT_NAME_NOT_FOUND ((NTSTATUS)0xC0000034L)
#define STATUS_OBJECT_NAME_COLLISION ((NTSTATUS)0xC0000035L)
#define STATUS_OBJECT_PATH_NOT_FOUND ((NTSTATUS)0xC000003AL)
#define STATUS_SHARING_VIOLATION ((NTSTATUS)0xC0000043L)
#define STATUS_INSUFFICIENT_RESOURCES ((NTSTATUS)0xC000009AL)
#define STATUS_DEVICE_NOT_READY ((NTSTATUS)0xC00000A3L)
#define STATUS_IO_TIMEOUT ((NTSTATUS)0xC00000B5L)
#define STATUS_NOT_SUPPORTED ((NTSTATUS)0xC00000BBL)
#define STATUS_DEVICE_DOES_NOT_EXIST ((NTSTATUS)0xC00000C0L)
#define STATUS_INTERNAL_ERROR ((NTSTATUS)0xC00000E5L)
#define STATUS_CANCELLED ((NTSTATUS)0xC0000120L)
#define STATUS_ASSERTION_FAILURE ((NTSTATUS)0xC0000420L)
#define STATUS_DELETE_PENDING ((NTSTATUS)0xC0000056L)
#define STATUS_INVALID_BUFFER_SIZE ((NTSTATUS)0xC0000206L)
#define STATUS_NOT_FOUND ((NTSTATUS)0xC0000225L)
#define STATUS_INVALID_DEVICE_STATE ((NTSTATUS)0xC0000184L)
#define STATUS_DEVICE_REMOVED ((NTSTATUS)0xC00002B6L)
#define STATUS_INTEGER_OVERFLOW ((NTSTATUS)0xC0000095L)

// ---------------------------------------------------------------------------------------
// Memory helpers
// ---------------------------------------------------------------------------------------
#define RtlCopyMemory(d, s, n) __builtin_memcpy((d), (s), (n))
#define RtlMoveMemory(d, s, n) __builtin_memmove((d), (s), (n))
#define RtlFillMemory(d, n, f) __builtin_memset((d), (f), (n))
#define RtlZeroMemory(d, n) __builtin_memset((d), 0, (n))
#define RtlEqualMemory(a, b, n) (__builtin_memcmp((a), (b), (n)) == 0)

// ---------------------------------------------------------------------------------------
// Doubly linked lists, with the integrity checks of the kernel's hardened primitives
// ---------------------------------------------------------------------------------------
typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY* Flink;
    struct _LIST_ENTRY* Blink;
} LIST_ENTRY, *PLIST_ENTRY;
static_assert(sizeof(LIST_ENTRY) == 16, "LIST_ENTRY keeps its x64 size");

#define FAST_FAIL_CORRUPT_LIST_ENTRY 3
EXTERN_C_START
// Stops the system at once, as the __fastfail intrinsic does (a bug check on the host).
__attribute__((noreturn)) VOID NTAPI __fastfail(ULONG Code);
EXTERN_C_END

FORCEINLINE VOID FatalListEntryError(PVOID, PVOID, PVOID)
{
    __fastfail(FAST_FAIL_CORRUPT_LIST_ENTRY);
}

FORCEINLINE VOID InitializeListHead(PLIST_ENTRY ListHead)
{
    ListHead->Flink = ListHead->Blink = ListHead;
}

FORCEINLINE BOOLEAN IsListEmpty(const LIST_ENTRY* ListHead)
{
    return (BOOLEAN)(ListHead->Flink == ListHead);
}

FORCEINLINE VOID RtlpCheckListEntry(PLIST_ENTRY Entry)
{
    if (Entry->Flink->Blink != Entry || Entry->Blink->Flink != Entry) {
        FatalListEntryError(Entry->Blink, Entry, Entry->Flink);
    }
}

FORCEINLINE BOOLEAN RemoveEntryList(PLIST_ENTRY Entry)
{
    PLIST_ENTRY PrevEntry = Entry->Blink;
    PLIST_ENTRY NextEntry = Entry->Flink;
    if (NextEntry->Blink != Entry || PrevEntry->Flink != Entry) {
        FatalListEntryError(PrevEntry, Entry, NextEntry);
    }
    PrevEntry->Flink = NextEntry;
    NextEntry->Blink = PrevEntry;
    return (BOOLEAN)(PrevEntry == NextEntry);
}

FORCEINLINE PLIST_ENTRY RemoveHeadList(PLIST_ENTRY ListHead)
{
    PLIST_ENTRY Entry = ListHead->Flink;
    PLIST_ENTRY NextEntry = Entry->Flink;
    if (Entry->Blink != ListHead || NextEntry->Blink != Entry) {
        FatalListEntryError(ListHead, Entry, NextEntry);
    }
    ListHead->Flink = NextEntry;
    NextEntry->Blink = ListHead;
    return Entry;
}

FORCEINLINE PLIST_ENTRY RemoveTailList(PLIST_ENTRY ListHead)
{
    PLIST_ENTRY Entry = ListHead->Blink;
    PLIST_ENTRY PrevEntry = Entry->Blink;
    if (Entry->Flink != ListHead || PrevEntry->Flink != Entry) {
        FatalListEntryError(PrevEntry, Entry, ListHead);
    }
    ListHead->Blink = PrevEntry;
    PrevEntry->Flink = ListHead;
    return Entry;
}

FORCEINLINE VOID InsertTailList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry)
{
    PLIST_ENTRY PrevEntry = ListHead->Blink;
    if (PrevEntry->Flink != ListHead) {
        FatalListEntryError(PrevEntry, ListHead, PrevEntry->Flink);
    }
    Entry->Flink = ListHead;
    Entry->Blink = PrevEntry;
    PrevEntry->Flink = Entry;
    ListHead->Blink = Entry;
}

FORCEINLINE VOID InsertHeadList(PLIST_ENTRY ListHead, PLIST_ENTRY Entry)
{
    PLIST_ENTRY NextEntry = ListHead->Flink;
    if (NextEntry->Blink != ListHead) {
        FatalListEntryError(ListHead, NextEntry, NextEntry->Blink);
    }
    Entry->Flink = NextEntry;
    Entry->Blink = ListHead;
    NextEntry->Blink = Entry;
    ListHead->Flink = Entry;
}

// ---------------------------------------------------------------------------------------
// Interlocked operations and ordered flag access (full barriers, as on x64)
// ---------------------------------------------------------------------------------------
FORCEINLINE LONG InterlockedIncrement(LONG volatile* Addend)
{
    return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedDecrement(LONG volatile* Addend)
{
    return __atomic_sub_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedAdd(LONG volatile* Addend, LONG Value)
{
    return __atomic_add_fetch(Addend, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedExchangeAdd(LONG volatile* Addend, LONG Value)
{
    return __atomic_fetch_add(Addend, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedExchange(LONG volatile* Target, LONG Value)
{
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedCompareExchange(LONG volatile* Destination, LONG Exchange,
                                            LONG Comparand)
{
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, false, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    return Comparand;
}
FORCEINLINE LONG InterlockedOr(LONG volatile* Destination, LONG Value)
{
    return __atomic_fetch_or(Destination, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG InterlockedAnd(LONG volatile* Destination, LONG Value)
{
    return __atomic_fetch_and(Destination, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG64 InterlockedIncrement64(LONG64 volatile* Addend)
{
    return __atomic_add_fetch(Addend, 1, __ATOMIC_SEQ_CST);
}
FORCEINLINE LONG64 InterlockedAdd64(LONG64 volatile* Addend, LONG64 Value)
{
    return __atomic_add_fetch(Addend, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE PVOID InterlockedExchangePointer(PVOID volatile* Target, PVOID Value)
{
    return __atomic_exchange_n(Target, Value, __ATOMIC_SEQ_CST);
}
FORCEINLINE PVOID InterlockedCompareExchangePointer(PVOID volatile* Destination, PVOID Exchange,
                                                    PVOID Comparand)
{
    __atomic_compare_exchange_n(Destination, &Comparand, Exchange, false, __ATOMIC_SEQ_CST,
                                __ATOMIC_SEQ_CST);
    return Comparand;
}
FORCEINLINE ULONG ReadULongAcquire(ULONG const volatile* Source)
{
    return __atomic_load_n(Source, __ATOMIC_ACQUIRE);
}
FORCEINLINE VOID WriteULongRelease(ULONG volatile* Destination, ULONG Value)
{
    __atomic_store_n(Destination, Value, __ATOMIC_RELEASE);
}
FORCEINLINE LONG ReadAcquire(LONG const volatile* Source)
{
    return __atomic_load_n(Source, __ATOMIC_ACQUIRE);
}
FORCEINLINE VOID WriteRelease(LONG volatile* Destination, LONG Value)
{
    __atomic_store_n(Destination, Value, __ATOMIC_RELEASE);
}
FORCEINLINE UCHAR ReadUCharAcquire(UCHAR const volatile* Source)
{
    return __atomic_load_n(Source, __ATOMIC_ACQUIRE);
}
FORCEINLINE VOID WriteUCharRelease(UCHAR volatile* Destination, UCHAR Value)
{
    __atomic_store_n(Destination, Value, __ATOMIC_RELEASE);
}
FORCEINLINE PVOID ReadPointerAcquire(PVOID const volatile* Source)
{
    return __atomic_load_n(Source, __ATOMIC_ACQUIRE);
}
FORCEINLINE VOID WritePointerRelease(PVOID volatile* Destination, PVOID Value)
{
    __atomic_store_n(Destination, Value, __ATOMIC_RELEASE);
}
#define KeMemoryBarrier() __atomic_thread_fence(__ATOMIC_SEQ_CST)

// ---------------------------------------------------------------------------------------
// IRQL, dispatcher objects, events, spin locks
// ---------------------------------------------------------------------------------------
typedef UCHAR KIRQL, *PKIRQL;
#define PASSIVE_LEVEL 0
#define LOW_LEVEL 0
#define APC_LEVEL 1
#define DISPATCH_LEVEL 2
#define HIGH_LEVEL 15

typedef CCHAR KPROCESSOR_MODE;
typedef enum _MODE { KernelMode, UserMode, MaximumMode } MODE;

typedef enum _KWAIT_REASON { Executive = 0, UserRequest = 6, Suspended = 5 } KWAIT_REASON;

typedef enum _EVENT_TYPE { NotificationEvent, SynchronizationEvent } EVENT_TYPE;

typedef struct _DISPATCHER_HEADER {
    UCHAR Type;
    UCHAR Signalling;
    UCHAR Size;
    UCHAR Reserved1;
    LONG SignalState;
    LIST_ENTRY WaitListHead; // the host keeps the list of blocked threads here
} DISPATCHER_HEADER, *PDISPATCHER_HEADER;

typedef struct _KEVENT {
    DISPATCHER_HEADER Header;
} KEVENT, *PKEVENT, *PRKEVENT;
static_assert(sizeof(KEVENT) == 24, "KEVENT keeps its x64 size");

typedef ULONG_PTR KSPIN_LOCK, *PKSPIN_LOCK;
static_assert(sizeof(KSPIN_LOCK) == 8, "KSPIN_LOCK keeps its x64 size");

typedef LONG KPRIORITY;
typedef struct _KTHREAD *PKTHREAD, *PRKTHREAD;
typedef struct _ETHREAD* PETHREAD;
typedef struct _EPROCESS* PEPROCESS;
typedef struct _DEVICE_OBJECT* PDEVICE_OBJECT;
typedef struct _DRIVER_OBJECT* PDRIVER_OBJECT;
typedef struct _FILE_OBJECT* PFILE_OBJECT;
typedef struct _IRP* PIRP;
typedef struct _OBJECT_TYPE* POBJECT_TYPE;

#define PAGED_CODE() mvgps_PagedCode(__FUNCTION__)

EXTERN_C_START
NTKERNELAPI KIRQL NTAPI KeGetCurrentIrql(VOID);
NTKERNELAPI VOID NTAPI KeRaiseIrql(KIRQL NewIrql, PKIRQL OldIrql);
NTKERNELAPI VOID NTAPI KeLowerIrql(KIRQL NewIrql);
NTKERNELAPI KIRQL NTAPI KeRaiseIrqlToDpcLevel(VOID);
// Pageable code must not run above APC_LEVEL; the host's verifier stops a run that does.
VOID NTAPI mvgps_PagedCode(PCSTR Function);

NTKERNELAPI VOID NTAPI KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State);
NTKERNELAPI LONG NTAPI KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait);
NTKERNELAPI VOID NTAPI KeClearEvent(PRKEVENT Event);
NTKERNELAPI LONG NTAPI KeResetEvent(PRKEVENT Event);
NTKERNELAPI LONG NTAPI KeReadStateEvent(PRKEVENT Event);
// Object is a KEVENT or a thread object (signalled when the thread has ended).
NTKERNELAPI NTSTATUS NTAPI KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason,
                                                 KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                                 PLARGE_INTEGER Timeout);
NTKERNELAPI NTSTATUS NTAPI KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                                  PLARGE_INTEGER Interval);

NTKERNELAPI VOID NTAPI KeInitializeSpinLock(PKSPIN_LOCK SpinLock);
NTKERNELAPI KIRQL NTAPI KeAcquireSpinLockRaiseToDpc(PKSPIN_LOCK SpinLock);
NTKERNELAPI VOID NTAPI KeReleaseSpinLock(PKSPIN_LOCK SpinLock, KIRQL NewIrql);
NTKERNELAPI VOID NTAPI KeAcquireSpinLockAtDpcLevel(PKSPIN_LOCK SpinLock);
NTKERNELAPI VOID NTAPI KeReleaseSpinLockFromDpcLevel(PKSPIN_LOCK SpinLock);

NTKERNELAPI ULONGLONG NTAPI KeQueryInterruptTime(VOID);
NTKERNELAPI VOID NTAPI KeQuerySystemTime(PLARGE_INTEGER CurrentTime);
NTKERNELAPI PKTHREAD NTAPI KeGetCurrentThread(VOID);
NTKERNELAPI KPRIORITY NTAPI KeSetPriorityThread(PKTHREAD Thread, KPRIORITY Priority);
NTKERNELAPI VOID NTAPI KeBugCheckEx(ULONG BugCheckCode, ULONG_PTR P1, ULONG_PTR P2, ULONG_PTR P3,
                                    ULONG_PTR P4) __attribute__((noreturn));
EXTERN_C_END

#define KeAcquireSpinLock(SpinLock, OldIrql) *(OldIrql) = KeAcquireSpinLockRaiseToDpc(SpinLock)
#define PsGetCurrentThread() ((PETHREAD)KeGetCurrentThread())

// ---------------------------------------------------------------------------------------
// Pool
// ---------------------------------------------------------------------------------------
typedef enum _POOL_TYPE {
    NonPagedPool = 0,
    NonPagedPoolExecute = 0,
    PagedPool = 1,
    NonPagedPoolNx = 512,
} POOL_TYPE;

typedef ULONG64 POOL_FLAGS;
#define POOL_FLAG_UNINITIALIZED 0x0000000000000002ULL
#define POOL_FLAG_NON_PAGED 0x0000000000000040ULL
#define POOL_FLAG_PAGED 0x0000000000000100ULL

EXTERN_C_START
NTKERNELAPI PVOID NTAPI ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag);
NTKERNELAPI PVOID NTAPI ExAllocatePool2(POOL_FLAGS Flags, SIZE_T NumberOfBytes, ULONG Tag);
NTKERNELAPI VOID NTAPI ExFreePoolWithTag(PVOID P, ULONG Tag);
NTKERNELAPI VOID NTAPI ExFreePool(PVOID P);
EXTERN_C_END

// ---------------------------------------------------------------------------------------
// Objects, handles and system threads
// ---------------------------------------------------------------------------------------
typedef struct _UNICODE_STRING {
    USHORT Length;
    USHORT MaximumLength;
    PWCH Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING* PCUNICODE_STRING;

typedef struct _ANSI_STRING {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
} ANSI_STRING, STRING, *PANSI_STRING, *PSTRING;

typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;

#define OBJ_CASE_INSENSITIVE 0x00000040L
#define OBJ_KERNEL_HANDLE 0x00000200L

#define InitializeObjectAttributes(p, n, a, r, s)                                                  \
    {                                                                                              \
        (p)->Length = sizeof(OBJECT_ATTRIBUTES);                                                   \
        (p)->RootDirectory = r;                                                                    \
        (p)->Attributes = a;                                                                       \
        (p)->ObjectName = n;                                                                       \
        (p)->SecurityDescriptor = s;                                                               \
        (p)->SecurityQualityOfService = NULL;                                                      \
    }

typedef struct _CLIENT_ID {
    HANDLE UniqueProcess;
    HANDLE UniqueThread;
} CLIENT_ID, *PCLIENT_ID;

typedef struct _OBJECT_HANDLE_INFORMATION {
    ULONG HandleAttributes;
    ACCESS_MASK GrantedAccess;
} OBJECT_HANDLE_INFORMATION, *POBJECT_HANDLE_INFORMATION;

#define DELETE 0x00010000L
#define READ_CONTROL 0x00020000L
#define SYNCHRONIZE 0x00100000L
#define STANDARD_RIGHTS_REQUIRED 0x000F0000L
#define STANDARD_RIGHTS_ALL 0x001F0000L
#define GENERIC_READ 0x80000000L
#define GENERIC_WRITE 0x40000000L
#define GENERIC_EXECUTE 0x20000000L
#define GENERIC_ALL 0x10000000L
#define THREAD_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0xFFFF)
#define KEY_READ 0x20019
#define KEY_QUERY_VALUE 0x0001

typedef VOID(NTAPI KSTART_ROUTINE)(PVOID StartContext);
typedef KSTART_ROUTINE* PKSTART_ROUTINE;

EXTERN_C_START
NTKERNELAPI NTSTATUS NTAPI PsCreateSystemThread(PHANDLE ThreadHandle, ULONG DesiredAccess,
                                                POBJECT_ATTRIBUTES ObjectAttributes,
                                                HANDLE ProcessHandle, PCLIENT_ID ClientId,
                                                PKSTART_ROUTINE StartRoutine, PVOID StartContext);
NTKERNELAPI NTSTATUS NTAPI ObReferenceObjectByHandle(HANDLE Handle, ACCESS_MASK DesiredAccess,
                                                     POBJECT_TYPE ObjectType,
                                                     KPROCESSOR_MODE AccessMode, PVOID* Object,
                                                     POBJECT_HANDLE_INFORMATION HandleInformation);
NTKERNELAPI LONG_PTR NTAPI ObfDereferenceObject(PVOID Object);
NTSYSAPI NTSTATUS NTAPI ZwClose(HANDLE Handle);
extern POBJECT_TYPE* PsThreadType;
EXTERN_C_END
#define ObDereferenceObject(o) ObfDereferenceObject(o)

// ---------------------------------------------------------------------------------------
// Strings and debug output
// ---------------------------------------------------------------------------------------
EXTERN_C_START
NTSYSAPI VOID NTAPI RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString);
NTSYSAPI VOID NTAPI RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString);
// Formats like the kernel's DbgPrint: %I64x, %ws, %wZ, %S and %Z as well as the C formats,
// with a 32-bit long. Not checked as printf, whose sizes and letters differ.
ULONG DbgPrint(PCSTR Format, ...);
ULONG DbgPrintEx(ULONG ComponentId, ULONG Level, PCSTR Format, ...);
EXTERN_C_END

// ---------------------------------------------------------------------------------------
// Event tracing: a provider registered by GUID writes strings that a trace session records
// ---------------------------------------------------------------------------------------
typedef ULONGLONG REGHANDLE, *PREGHANDLE;
typedef struct _EVENT_FILTER_DESCRIPTOR {
    ULONGLONG Ptr;
    ULONG Size;
    ULONG Type;
} EVENT_FILTER_DESCRIPTOR, *PEVENT_FILTER_DESCRIPTOR;
typedef VOID(NTAPI* PETWENABLECALLBACK)(LPCGUID SourceId, ULONG ControlCode, UCHAR Level,
                                        ULONGLONG MatchAnyKeyword, ULONGLONG MatchAllKeyword,
                                        PEVENT_FILTER_DESCRIPTOR FilterData, PVOID CallbackContext);
EXTERN_C_START
NTKERNELAPI NTSTATUS NTAPI EtwRegister(LPCGUID ProviderId, PETWENABLECALLBACK EnableCallback,
                                       PVOID CallbackContext, PREGHANDLE RegHandle);
NTKERNELAPI NTSTATUS NTAPI EtwUnregister(REGHANDLE RegHandle);
NTKERNELAPI BOOLEAN NTAPI EtwProviderEnabled(REGHANDLE RegHandle, UCHAR Level, ULONGLONG Keyword);
NTKERNELAPI NTSTATUS NTAPI EtwWriteString(REGHANDLE RegHandle, UCHAR Level, ULONGLONG Keyword,
                                          LPCGUID ActivityId, PCWSTR String);
EXTERN_C_END

#define DPFLTR_IHVDRIVER_ID 77
#define DPFLTR_ERROR_LEVEL 0
#define DPFLTR_TRACE_LEVEL 3
#define DPFLTR_INFO_LEVEL 3

#define RTL_CONSTANT_STRING(s)                                                                     \
    {                                                                                              \
        (USHORT)(sizeof(s) - sizeof((s)[0])), (USHORT)sizeof(s), (PWCH)(s)                         \
    }
#define DECLARE_CONST_UNICODE_STRING(_var, _string)                                                \
    const WCHAR _var##_buffer[] = _string;                                                         \
    const UNICODE_STRING _var = {sizeof(_string) - sizeof(WCHAR), sizeof(_string),                 \
                                 (PWCH)_var##_buffer}
#define DECLARE_UNICODE_STRING_SIZE(_var, _size)                                                   \
    WCHAR _var##_buffer[_size];                                                                    \
    UNICODE_STRING _var = {0, (_size) * sizeof(WCHAR), _var##_buffer}

// Assertions are live in every build of the host: a false one is a bug check, as an
// assertion with no debugger attached is on Windows.
EXTERN_C_START
DECLSPEC_NORETURN VOID NTAPI mvgps_AssertionFailure(PCSTR Expression, PCSTR File, ULONG Line);
EXTERN_C_END
#define NT_ASSERT(e) ((e) ? (void)0 : mvgps_AssertionFailure(#e, __FILE__, __LINE__))
#define ASSERT(e) NT_ASSERT(e)
#define NT_VERIFY(e) ((e) ? TRUE : (mvgps_AssertionFailure(#e, __FILE__, __LINE__), FALSE))

// ---------------------------------------------------------------------------------------
// I/O definitions shared with user mode
// ---------------------------------------------------------------------------------------
#define CTL_CODE(DeviceType, Function, Method, Access)                                             \
    (((DeviceType) << 16) | ((Access) << 14) | ((Function) << 2) | (Method))
#define DEVICE_TYPE_FROM_CTL_CODE(ctrlCode) (((ULONG)(ctrlCode & 0xffff0000)) >> 16)
#define METHOD_FROM_CTL_CODE(ctrlCode) ((ULONG)(ctrlCode & 3))
#define METHOD_BUFFERED 0
#define METHOD_IN_DIRECT 1
#define METHOD_OUT_DIRECT 2
#define METHOD_NEITHER 3
#define FILE_ANY_ACCESS 0
#define FILE_READ_ACCESS 0x0001
#define FILE_WRITE_ACCESS 0x0002

typedef ULONG DEVICE_TYPE;
#define FILE_DEVICE_BUS_EXTENDER 0x0000002a
#define FILE_DEVICE_SERIAL_PORT 0x0000001b
#define FILE_DEVICE_UNKNOWN 0x00000022

#define FILE_OPEN 0x00000001
#define FILE_NON_DIRECTORY_FILE 0x00000040
#define FILE_SHARE_READ 0x00000001
#define FILE_SHARE_WRITE 0x00000002
#define FILE_ATTRIBUTE_NORMAL 0x00000080

#define FILE_AUTOGENERATED_DEVICE_NAME 0x00000080
#define FILE_DEVICE_SECURE_OPEN 0x00000100

typedef enum _INTERFACE_TYPE {
    InterfaceTypeUndefined = -1,
    Internal = 0,
    Isa = 1,
    PCIBus = 5,
    PNPBus = 15,
    MaximumInterfaceType = 18
} INTERFACE_TYPE,
    *PINTERFACE_TYPE;

typedef enum _DEVICE_POWER_STATE {
    PowerDeviceUnspecified = 0,
    PowerDeviceD0,
    PowerDeviceD1,
    PowerDeviceD2,
    PowerDeviceD3,
    PowerDeviceMaximum
} DEVICE_POWER_STATE,
    *PDEVICE_POWER_STATE;

typedef enum _SYSTEM_POWER_STATE {
    PowerSystemUnspecified = 0,
    PowerSystemWorking = 1,
    PowerSystemSleeping1 = 2,
    PowerSystemSleeping2 = 3,
    PowerSystemSleeping3 = 4,
    PowerSystemHibernate = 5,
    PowerSystemShutdown = 6,
    PowerSystemMaximum = 7
} SYSTEM_POWER_STATE,
    *PSYSTEM_POWER_STATE;

// Device interface lookup: a multi-string of symbolic links that the caller frees.
EXTERN_C_START
NTKERNELAPI NTSTATUS NTAPI IoGetDeviceInterfaces(const GUID* InterfaceClassGuid,
                                                 PDEVICE_OBJECT PhysicalDeviceObject, ULONG Flags,
                                                 PZZWSTR* SymbolicLinkList);
EXTERN_C_END

// ---------------------------------------------------------------------------------------
// Hardware resource descriptors (connection resources carry a Resource Hub id)
// ---------------------------------------------------------------------------------------
#define CmResourceTypeNull 0
#define CmResourceTypePort 1
#define CmResourceTypeInterrupt 2
#define CmResourceTypeMemory 3
#define CmResourceTypeDma 4
#define CmResourceTypeConnection 0x84

#define CM_RESOURCE_CONNECTION_CLASS_GPIO 0x01
#define CM_RESOURCE_CONNECTION_CLASS_SERIAL 0x02
#define CM_RESOURCE_CONNECTION_TYPE_GPIO_IO 0x02
#define CM_RESOURCE_CONNECTION_TYPE_SERIAL_I2C 0x01
#define CM_RESOURCE_CONNECTION_TYPE_SERIAL_SPI 0x02
#define CM_RESOURCE_CONNECTION_TYPE_SERIAL_UART 0x03

#pragma pack(push, 4)
typedef struct _CM_PARTIAL_RESOURCE_DESCRIPTOR {
    UCHAR Type;
    UCHAR ShareDisposition;
    USHORT Flags;
    union {
        struct {
            LARGE_INTEGER Start;
            ULONG Length;
        } Generic;
        struct {
            LARGE_INTEGER Start;
            ULONG Length;
        } Port;
        struct {
            USHORT Level;
            USHORT Group;
            ULONG Vector;
            KAFFINITY Affinity;
        } Interrupt;
        struct {
            LARGE_INTEGER Start;
            ULONG Length;
        } Memory;
        struct {
            UCHAR Class;
            UCHAR Type;
            UCHAR Reserved1;
            UCHAR Reserved2;
            ULONG IdLowPart;
            ULONG IdHighPart;
        } Connection;
    } u;
} CM_PARTIAL_RESOURCE_DESCRIPTOR, *PCM_PARTIAL_RESOURCE_DESCRIPTOR;
#pragma pack(pop)
