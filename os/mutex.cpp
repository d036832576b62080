// Mutexes: framework wait locks in a pool block that also carries the owner's identifier.
#include "os/name.h"

_Use_decl_annotations_ OS_STATUS OsAllocateMutex(OsMutex** Mutex, PCSTR Name)
{
    if (OsAllocateZeroedMemory((PVOID*)Mutex, sizeof(OsMutex), 2) != OS_SUCCESS) {
        MvDbgPrint(DBG_OS, "OS:     Allocat Mutex Error");
        if (Name != NULL) {
            MvDbgPrint(DBG_OS, "OS:  Mutex Id String is %s", Name);
        }
        return OS_NO_MEMORY;
    }

    WDF_OBJECT_ATTRIBUTES attributes;
    WDF_OBJECT_ATTRIBUTES_INIT(&attributes);
    NTSTATUS status = WdfWaitLockCreate(&attributes, &(*Mutex)->WaitLock);
    if (!NT_SUCCESS(status)) {
        // The block stays with the caller, whose teardown frees it.
        MvDbgPrint(DBG_OS, "OS:    OsAllocateMutex failed 0x%x", (ULONG)status);
        return (OS_STATUS)status;
    }

    if (Name != NULL) {
        OsCopyName((*Mutex)->Name, Name);
    }
    return OS_SUCCESS;
}

// A block whose wait lock could not be made serialises nothing, like no mutex at all.
static BOOLEAN has_lock(const OsMutex* Mutex)
{
    return Mutex != NULL && Mutex->WaitLock != NULL;
}

_Use_decl_annotations_ VOID OsAcquireMutex(OsMutex* Mutex)
{
    // Commands sent before the mutex exists go out unserialised; nothing else runs then.
    if (has_lock(Mutex)) {
        (VOID) WdfWaitLockAcquire(Mutex->WaitLock, NULL);
    }
}

_Use_decl_annotations_ VOID OsReleaseMutex(OsMutex* Mutex)
{
    if (has_lock(Mutex)) {
        WdfWaitLockRelease(Mutex->WaitLock);
    }
}

_Use_decl_annotations_ BOOLEAN OsTryAcquireMutex(OsMutex* Mutex)
{
    if (Mutex == NULL) {
        return FALSE;
    }
    NTSTATUS status = WdfWaitLockAcquire(Mutex->WaitLock, NULL);
    if (status == STATUS_SUCCESS) {
        return TRUE;
    }
    if (status == STATUS_TIMEOUT) {
        MvDbgPrint(DBG_OS, "OS:     WdfWaitLockAcquire timeout");
    } else {
        MvDbgPrint(DBG_OS, "OS:     WdfWaitLockAcquire othrer error");
    }
    return FALSE;
}

_Use_decl_annotations_ VOID OsFreeMutex(OsMutex** Mutex)
{
    if (Mutex == NULL || *Mutex == NULL) {
        MvDbgPrint(DBG_OS, "OS:  fail cause ppMutex has not allocate before");
        return;
    }
    if ((*Mutex)->WaitLock == NULL) {
        OsFreeMemory((PVOID*)Mutex);
        return;
    }
    if (!OsTryAcquireMutex(*Mutex)) {
        // Leaked on purpose rather than deleted while someone holds it.
        CHAR name[OS_NAME_SIZE + 1];
        RtlCopyMemory(name, (*Mutex)->Name, OS_NAME_SIZE);
        name[OS_NAME_SIZE] = '\0';
        MvDbgPrint(DBG_OS, "OS: Mutex is hold by another thread!!!");
        MvDbgPrint(DBG_OS, "Free Mutex Id String is %s", name);
        return;
    }
    WdfWaitLockRelease((*Mutex)->WaitLock);
    WdfObjectDelete((*Mutex)->WaitLock);
    OsFreeMemory((PVOID*)Mutex);
}
