// The serial line's settings and the switch to another rate while the driver runs.
//
// The line always carries 8 data bits, no parity, one stop bit and no flow control; only the
// rate changes. Switching it stops the read thread, reprograms the port, forgets every byte
// and frame received at the old rate, and starts a new read thread.
#pragma once

#include "driver/driver.h"

// Cancels the read in flight and empties the receive side.
#define UART_PURGE_RX (SERIAL_PURGE_RXABORT | SERIAL_PURGE_RXCLEAR)

// Throws away what the port holds for reading, and any read in flight.
_IRQL_requires_max_(PASSIVE_LEVEL) VOID UartPurgeRx(FdoExtension* Context);

// 0 when the switch ran to its end, and also when the port refused the flow-control setting
// (reading then stays stopped); -1 when the rate or the line control was refused (reading
// stays stopped). Waits without limit for the read thread to end. Unused is not looked at.
_IRQL_requires_max_(PASSIVE_LEVEL) LONG
    change_baudrate(FdoExtension* Context, ULONG BaudRate, ULONG Unused);
