// Starting and stopping the read and processing threads, with their objects kept so that a
// stop can wait for each thread to be gone.
#include "driver/lifecycle.h"
#include "read/read.h"

static VOID clear_run_flags(FdoExtension* ext)
{
    WriteULongRelease(&ext->Threadread_flag, 0);
    WriteULongRelease(&ext->Thread_flag, 0);
}

_Use_decl_annotations_ NTSTATUS FdoStartThreads(FdoExtension* Context, PCSTR Function)
{
    // A read thread that ended on its own (a silent line) is collected before its successor.
    OsWaitForThread(&Context->ReadThread);
    OsWaitForThread(&Context->ProcessThread);

    WriteULongRelease(&Context->Thread_flag, 1);
    WriteULongRelease(&Context->Threadread_flag, 1);
    WriteULongRelease(&Context->ReadEnable_flag, 1);
    NTSTATUS status = OsCreateThread(StartFunc_GPS, Context, 0, &Context->ReadThread);
    if (!NT_SUCCESS(status)) {
        Context->ReadThread = NULL;
        clear_run_flags(Context);
        return status;
    }
    status = OsCreateThread(UART_ProcessReadQueue_GPS, Context, 0, &Context->ProcessThread);
    if (!NT_SUCCESS(status)) {
        Context->ProcessThread = NULL;
        // The read thread alone: it leaves at its next read, and nobody waits for the
        // processing thread's signal.
        WriteULongRelease(&Context->Threadread_flag, 0);
        (VOID) OsWaitForSignal(Context->Threadread_FinishSignal, 0);
        OsClearSignal(Context->Threadread_FinishSignal);
        OsWaitForThread(&Context->ReadThread);
        clear_run_flags(Context);
        return status;
    }
    MvDbgPrintAs(Function, DBG_ERROR, "StartFunc_GPS:::::::::");
    return STATUS_SUCCESS;
}

_Use_decl_annotations_ VOID FdoStopThreads(FdoExtension* Context, BOOLEAN ClearSignals,
                                           PCSTR Function)
{
    if (ReadULongAcquire(&Context->Threadread_flag) != 1) {
        return;
    }
    WriteULongRelease(&Context->Threadread_flag, 0);
    MvDbgPrintAs(Function, DBG_ERROR, "Threadread_flag is NULL");
    // A rate switch that stopped early has collected the read thread and cleared its signal
    // already; there is nothing to wait for then.
    if (Context->ReadThread != NULL) {
        (VOID) OsWaitForSignal(Context->Threadread_FinishSignal, 0);
    }
    MvDbgPrintAs(Function, DBG_ERROR, "OsWaitForSignal Threadread_FinishSignal");
    if (ClearSignals) {
        OsClearSignal(Context->Threadread_FinishSignal);
    }
    OsWaitForThread(&Context->ReadThread);

    WriteULongRelease(&Context->Thread_flag, 0);
    MvDbgPrintAs(Function, DBG_ERROR, "Thread_flag is NULL");
    OsSetSignal(Context->DataFinishSignal);
    (VOID) OsWaitForSignal(Context->Threadprocess_FinishSignal, 0);
    MvDbgPrintAs(Function, DBG_ERROR, "OsWaitForSignal Threadprocess_FinishSignal");
    if (ClearSignals) {
        OsClearSignal(Context->Threadprocess_FinishSignal);
    }
    OsWaitForThread(&Context->ProcessThread);
}
