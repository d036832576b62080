// Pool tags of the driver. Pool viewers show a tag's bytes in memory order, so MVBT is
// listed as "TBVM" and the driver's tag reads "SHBS".
#pragma once

#include <wdm.h>

// Blocks of the platform layer: mutex and signal records and raw OsAllocateMemory blocks.
#define OS_POOL_TAG ((ULONG)0x4D564254)
// Everything else the driver allocates: packets, frame copies, work buffers.
#define DRIVER_POOL_TAG ((ULONG)0x53424853)
// Packet records are released without a tag check.
#define ANY_POOL_TAG ((ULONG)0)
