// The baud-rate switch: the read thread is stopped, the port reprogrammed and the receive
// state emptied, so that no byte read at the old rate is joined to one at the new rate.
#include "uart/line.h"
#include "read/read.h"
#include "uart/uart.h"

_Use_decl_annotations_ VOID UartPurgeRx(FdoExtension* Context)
{
    ULONG mask = UART_PURGE_RX;
    (VOID) SerialSendIoSync(Context->UartIoTarget, IOCTL_SERIAL_PURGE, sizeof(mask), &mask);
}

static VOID trace_rate(FdoExtension* Context)
{
    SERIAL_BAUD_RATE rate = {};
    (VOID)
        SerialReadFromSync(Context->UartIoTarget, IOCTL_SERIAL_GET_BAUD_RATE, sizeof(rate), &rate);
    MvDbgPrintAs("change_baudrate", DBG_BAUD, "COM: BaudRate(%d)", (int)rate.BaudRate);
}

// The finish signal comes just before the thread leaves this image's code; its object
// tells when it has. After a switch that stopped early there is no thread to wait for.
static VOID await_read_thread(FdoExtension* Context)
{
    if (Context->ReadThread == NULL) {
        return;
    }
    (VOID) OsWaitForSignal(Context->Threadread_FinishSignal, 0);
    OsClearSignal(Context->Threadread_FinishSignal);
    OsWaitForThread(&Context->ReadThread);
}

// Frames received at the old rate go with it. They are taken off under PacketLock, which
// the processing thread holds while it walks the list, and freed.
static VOID drop_received_frames(FdoExtension* Context)
{
    LIST_ENTRY dropped;
    InitializeListHead(&dropped);
    KIRQL irql = KeAcquireSpinLockRaiseToDpc(&Context->PacketLock);
    while (!IsListEmpty(&Context->ReadDataList)) {
        InsertTailList(&dropped, RemoveHeadList(&Context->ReadDataList));
        InterlockedDecrement(&Context->ReadDataCount);
    }
    KeReleaseSpinLock(&Context->PacketLock, irql);
    while (!IsListEmpty(&dropped)) {
        PacketEntryFree(CONTAINING_RECORD(RemoveHeadList(&dropped), PacketEntry, ListEntry));
    }
}

// 8 data bits, no parity, one stop bit: -1 when the port refuses the rate or the format.
static LONG set_rate_and_format(FdoExtension* Context, ULONG BaudRate)
{
    MvDbgPrintAs("change_baudrate", DBG_OS, "COM: Set BaudRate(%d)", (int)BaudRate);
    SERIAL_BAUD_RATE rate = {BaudRate};
    if (!SerialSendIoSync(Context->UartIoTarget, IOCTL_SERIAL_SET_BAUD_RATE, sizeof(rate), &rate)) {
        MvDbgPrintAs("change_baudrate", DBG_ERROR, "Failed to set baudrate");
        return -1;
    }
    UartPurgeRx(Context);
    trace_rate(Context);
    SERIAL_LINE_CONTROL line = {STOP_BIT_1, NO_PARITY, 8};
    if (!SerialSendIoSync(Context->UartIoTarget, IOCTL_SERIAL_SET_LINE_CONTROL, sizeof(line),
                          &line)) {
        MvDbgPrintAs("change_baudrate", DBG_ERROR, "Failed to set line control");
        return -1;
    }
    return 0;
}

_Use_decl_annotations_ LONG change_baudrate(FdoExtension* Context, ULONG BaudRate, ULONG Unused)
{
    UNREFERENCED_PARAMETER(Unused);
    // The purge cancels the read in flight, which ends the read thread. A thread between two
    // reads would start another that the purge no longer reaches, and a line busy at the
    // old rate could keep it reading; with reads switched off it ends at its next one.
    WriteULongRelease(&Context->ReadEnable_flag, 0);
    UartPurgeRx(Context);
    await_read_thread(Context);
    trace_rate(Context);
    if (set_rate_and_format(Context, BaudRate) != 0) {
        return -1;
    }
    // A port without flow control to switch off is not worth a failure, but it is not worth
    // reading from either: the switch ends here, quietly, with reading stopped.
    SERIAL_HANDFLOW handflow = {};
    if (!SerialSendIoSync(Context->UartIoTarget, IOCTL_SERIAL_SET_HANDFLOW, sizeof(handflow),
                          &handflow)) {
        return 0;
    }
    if (ReadULongAcquire(&Context->ReadThreadRunning) == 1) {
        MvDbgPrint(DBG_ERROR, "reset_circ");
        reset_circ(&Context->RecvCirc);
    }
    drop_received_frames(Context);
    WriteULongRelease(&Context->ReadEnable_flag, 1);
    (VOID) OsCreateThread(StartFunc_GPS, Context, 0, &Context->ReadThread);
    return 0;
}
