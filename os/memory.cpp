// Pool blocks of the platform layer, with the allocator statistics.
#include "os/os.h"

LONG64 AllocCount;
LONG64 AllocBytes;
LONG64 AllocFailCount;
LONG64 FreeCount;

_Use_decl_annotations_ OS_STATUS OsAllocateMemory(PVOID* Memory, ULONG Size)
{
    *Memory = ExAllocatePoolWithTag(NonPagedPoolNx, Size, OS_POOL_TAG);
    if (*Memory == NULL) {
        MvDbgPrint(DBG_OS, "OS: Allocat Memory Error");
        InterlockedIncrement64(&AllocFailCount);
        return OS_NO_MEMORY;
    }
    InterlockedIncrement64(&AllocCount);
    InterlockedAdd64(&AllocBytes, Size);
    return OS_SUCCESS;
}

_Use_decl_annotations_ OS_STATUS OsAllocateZeroedMemory(PVOID* Memory, ULONG Size, ULONG Reserved)
{
    UNREFERENCED_PARAMETER(Reserved);

    OS_STATUS status = OsAllocateMemory(Memory, Size);
    if (status != OS_SUCCESS) {
        return status;
    }
    RtlZeroMemory(*Memory, Size);
    return OS_SUCCESS;
}

_Use_decl_annotations_ VOID OsFreeMemory(PVOID* Memory)
{
    if (Memory == NULL || *Memory == NULL) {
        MvDbgPrint(DBG_OS, "OS: Specified buffer is null already");
        return;
    }
    ExFreePoolWithTag(*Memory, OS_POOL_TAG);
    InterlockedIncrement64(&FreeCount);
    *Memory = NULL;
}
