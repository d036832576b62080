// Signals: notification events in a pool block with a state word that mirrors the event.
#include "os/name.h"

_Use_decl_annotations_ OS_STATUS OsAllocateSignal(OsSignal** Signal, PCSTR Name)
{
    if (OsAllocateZeroedMemory((PVOID*)Signal, sizeof(OsSignal), 2) != OS_SUCCESS) {
        MvDbgPrint(DBG_OS, "OS:     Allocat Signal Error");
        if (Name != NULL) {
            MvDbgPrint(DBG_OS, "OS:  Signal Id String is %s", Name);
        }
        return OS_NO_MEMORY;
    }
    KeInitializeEvent(&(*Signal)->Event, NotificationEvent, FALSE);
    (*Signal)->State = OS_SIGNAL_CLEAR;
    if (Name != NULL) {
        OsCopyName((*Signal)->Name, Name);
    }
    return OS_SUCCESS;
}

_Use_decl_annotations_ VOID OsSetSignal(OsSignal* Signal)
{
    if (Signal != NULL) {
        WriteULongRelease(&Signal->State, OS_SIGNAL_SET);
        KeSetEvent(&Signal->Event, 0, FALSE);
    }
}

_Use_decl_annotations_ VOID OsClearSignal(OsSignal* Signal)
{
    if (Signal != NULL) {
        WriteULongRelease(&Signal->State, OS_SIGNAL_CLEAR);
        KeClearEvent(&Signal->Event);
    }
}

_Use_decl_annotations_ OS_STATUS OsWaitForSignal(OsSignal* Signal, ULONG Timeout)
{
    if (Signal == NULL) {
        MvDbgPrint(DBG_OS, "OS:  Signal is not exist");
        return OS_NO_SIGNAL;
    }
    if (Timeout == 0) {
        NTSTATUS status = KeWaitForSingleObject(&Signal->Event, Executive, KernelMode, FALSE, NULL);
        return status == STATUS_SUCCESS ? OS_SUCCESS : OS_WAIT_FAILED;
    }

    // The interval is formed in 32 bits, so timeouts above 214748 ms wrap; callers use
    // small values.
    LARGE_INTEGER interval;
    interval.QuadPart = (LONG)(0u - Timeout * 10000u);
    NTSTATUS status =
        KeWaitForSingleObject(&Signal->Event, Executive, KernelMode, FALSE, &interval);
    if (status == STATUS_TIMEOUT) {
        return OS_WAIT_TIMEOUT;
    }
    return status == STATUS_SUCCESS ? OS_SUCCESS : OS_WAIT_FAILED;
}

_Use_decl_annotations_ VOID OsFreeSignal(OsSignal** Signal)
{
    if (Signal == NULL || *Signal == NULL) {
        MvDbgPrint(DBG_OS, "OS:  Free Signal fail cause signal has not allocate before");
        return;
    }
    // Let any waiter of a clear signal go before its event disappears.
    if ((ReadULongAcquire(&(*Signal)->State) & OS_SIGNAL_CLEAR) != 0) {
        WriteULongRelease(&(*Signal)->State, OS_SIGNAL_SET);
        KeSetEvent(&(*Signal)->Event, 0, FALSE);
    }
    OsFreeMemory((PVOID*)Signal);
}
