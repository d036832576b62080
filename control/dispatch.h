// The bus device's control requests: every code a GPS client sends to the parent, or that
// the child forwards to it, decoded and served here. A raw chip command stays with the driver
// until the chip answers it; it can be cancelled by its client and never holds up a sleep.
#pragma once

#include "driver/driver.h"

// 1 from load until the first wake-up request, then 0 for the rest of the driver's life.
extern volatile LONG download_flag;
// 0 awake, 1 after a sleep request (until the next wake-up request).
extern volatile LONG sleep_status;

EVT_WDF_IO_QUEUE_IO_DEVICE_CONTROL FdoIoQuDeviceControl;
// The default queue's stop callback: a raw command waiting for its answer lets a sleep
// proceed and ends cancelled on removal.
EVT_WDF_IO_QUEUE_IO_STOP FdoIoQuStop;
// The cancel callback of the raw command the driver holds.
EVT_WDF_REQUEST_CANCEL FdoCmdRequestCancel;
