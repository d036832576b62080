// The read pipeline: the read thread that turns the UART's bytes into frames, the queue of
// received frames, and the processing thread that hands them to waiting client reads.
//
// A completed client read holds a 16-byte header and then the frame:
//   byte 0 = 3; bytes 4..7 = the frame length; bytes 8..11 = 1; bytes 12..15 = 2.
// Bytes 1..3 are left as the caller's buffer had them.
#pragma once

#include "driver/driver.h"
#include "read/packet_entry.h"

#define READ_COMPLETION_HEADER_SIZE 16
#define READ_COMPLETION_TYPE 3
#define READ_INTERVAL_TIMEOUT_MS 10

// The read thread: interval-timeout reads of up to 2048 bytes, handed to the receive path,
// for as long as each read ends by the interval timer with data and Threadread_flag is set.
// Sets Threadread_FinishSignal when it leaves.
KSTART_ROUTINE StartFunc_GPS;
// The processing thread: one pass of UART_ProcessReadQueue each time DataFinishSignal is
// set, until Thread_flag is cleared. Sets Threadprocess_FinishSignal when it leaves.
KSTART_ROUTINE UART_ProcessReadQueue_GPS;

// Pairs queued entries with pending requests, one entry per request, oldest first. Entries
// with no request waiting are dropped. Returns the status of the last step.
_IRQL_requires_max_(DISPATCH_LEVEL) NTSTATUS
    UART_ProcessReadQueue(FdoExtension* Context, ULONG Kind, WDFQUEUE Queue,
                          volatile LONG* QueueCount, PLIST_ENTRY List, volatile LONG* ListCount);

// The data queue, the transmit mutex and the read request with its memory. On failure the
// caller releases them with UART_FreeReadResources, once the threads that use the rest of
// what that frees have been stopped.
_IRQL_requires_max_(PASSIVE_LEVEL) NTSTATUS UART_AllocateReadResources(WDFDEVICE Device);
// Drains both packet lists and releases the read resources, the acknowledgement buffer, the
// signals and the mutex; what was never made is skipped. Both threads must have ended.
_IRQL_requires_max_(PASSIVE_LEVEL) VOID UART_FreeReadResources(WDFDEVICE Device);
// The four signals and the transmit mutex, each only if present, in their order of creation
// with the mutex after the first signal. Both threads must have ended.
_IRQL_requires_max_(PASSIVE_LEVEL) VOID UART_FreeSignals(FdoExtension* Context);
