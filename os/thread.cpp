// System threads and delays.
#include "os/os.h"

_Use_decl_annotations_ NTSTATUS OsCreateThread(PKSTART_ROUTINE StartRoutine, PVOID Context,
                                               KPRIORITY Priority, PVOID* ThreadObject)
{
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, NULL, OBJ_KERNEL_HANDLE, NULL, NULL);

    HANDLE handle;
    NTSTATUS status = PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, &attributes, NULL, NULL,
                                           StartRoutine, Context);
    if (!NT_SUCCESS(status)) {
        MvDbgPrint(DBG_OS, "OS: Worker Thread creation failed with 0x%lx\n",
                   (unsigned long)(ULONG)status);
        return status;
    }

    status =
        ObReferenceObjectByHandle(handle, THREAD_ALL_ACCESS, NULL, KernelMode, ThreadObject, NULL);
    if (NT_SUCCESS(status) && Priority != 0) {
        KeSetPriorityThread((PKTHREAD)*ThreadObject, Priority);
    }
    ZwClose(handle);
    return status;
}

_Use_decl_annotations_ VOID OsWaitForThread(PVOID* ThreadObject)
{
    if (*ThreadObject == NULL) {
        return;
    }
    (VOID) KeWaitForSingleObject(*ThreadObject, Executive, KernelMode, FALSE, NULL);
    ObDereferenceObject(*ThreadObject);
    *ThreadObject = NULL;
}

_Use_decl_annotations_ VOID OsDelay(ULONG Milliseconds)
{
    LARGE_INTEGER interval;
    interval.QuadPart = -(LONGLONG)Milliseconds * 10000;
    KeDelayExecutionThread(KernelMode, FALSE, &interval);
}
