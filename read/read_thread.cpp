// The read thread: the UART's receive side, read in interval-timeout mode and cut into
// frames on this thread.
#include "link/device/command.h"
#include "read/read.h"
#include "uart/uart.h"

// The helpers below print under the name of the thread routine they work for.
#define THREAD_FN "StartFunc_GPS"

// A read waits for its first byte, then ends STATUS_TIMEOUT once the line has been quiet
// for the interval.
static VOID set_read_timeouts(FdoExtension* ext)
{
    SERIAL_TIMEOUTS timeouts = {};
    timeouts.ReadIntervalTimeout = READ_INTERVAL_TIMEOUT_MS;
    ULONG_PTR written = 0;
    NTSTATUS status =
        HalWriteToDeviceSync(ext->UartIoTarget, ext->UartRequest, IOCTL_SERIAL_SET_TIMEOUTS,
                             sizeof(timeouts), &timeouts, &written);
    if (!NT_SUCCESS(status)) {
        MvDbgPrintAs(THREAD_FN, DBG_ERROR, "Error!!BytesWritten(%d)Status(%x)", (int)written,
                     status);
        return;
    }
    MvDbgPrintAs(THREAD_FN, DBG_ERROR, "Success");
    ext->ReadThreadByte = 0;
}

static VOID trace_chunk(const FdoExtension* ext, ULONG_PTR count)
{
    if (ext->ReadMode != 1) {
        return;
    }
    for (ULONG_PTR i = 0; i < count; i++) {
        MvDbgPrintAs(THREAD_FN, DBG_ERROR, "%02x ", ext->ReadBuffer[i]);
    }
}

// One read and what it means for the loop: TRUE to read again.
static BOOLEAN read_chunk(FdoExtension* ext)
{
    ULONG_PTR count = 0;
    NTSTATUS status = HalReadFromDeviceSync(ext->UartIoTarget, ext->UartRequest, 0,
                                            sizeof(ext->ReadBuffer), ext->ReadBuffer, &count, ext);
    MvDbgPrintAs(THREAD_FN, DBG_ERROR, "Read COM: status(0x%x)BytesRead(%d)", status, (int)count);
    if (status == STATUS_CANCELLED) {
        MvDbgPrintAs(THREAD_FN, DBG_ERROR, "Read COM: cancelled break;");
        return FALSE;
    }
    // Only the interval timer ends a read normally; a full buffer or a silent line stops
    // the thread, and its owner starts a new one.
    if (status != STATUS_TIMEOUT || count == 0) {
        return FALSE;
    }
    trace_chunk(ext, count);
    recv_hci_buffer(ext->ReadBuffer, (USHORT)count, ext, &ext->RecvCirc);
    if (ReadULongAcquire(&ext->Threadread_flag) == 0) {
        MvDbgPrintAs(THREAD_FN, DBG_ERROR, "Threadread_flag is NULL");
    }
    return TRUE;
}

_Use_decl_annotations_ VOID StartFunc_GPS(PVOID StartContext)
{
    FdoExtension* ext = (FdoExtension*)StartContext;

    init_hci_circ(&ext->RecvCirc);
    WriteULongRelease(&ext->ReadThreadRunning, 1);
    set_pkt_parse_callback(local_process_pkt);
    set_read_timeouts(ext);

    while (ReadULongAcquire(&ext->Threadread_flag) != 0 && read_chunk(ext)) {
    }

    OsSetSignal(ext->Threadread_FinishSignal);
    MvDbgPrint(DBG_ERROR, "OsSetSignal Threadread_FinishSignal");
}
