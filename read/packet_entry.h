// PacketEntry: one received frame on its way to a client read, queued on ReadDataList (or
// DataQueueList) under PacketLock. The entry and its frame copy are separate non-paged
// blocks under the driver's tag, freed together without a tag check.
#pragma once

#include <ntddk.h>

#include "os/pool_tags.h"

struct PacketEntry {
    LIST_ENTRY ListEntry;
    LONG Length; // bytes in Packet
    PUCHAR Packet;
};
static_assert(sizeof(PacketEntry) == 32, "a packet entry is one 32-byte block");

// A queued copy of the frame, its links pointing at itself, or NULL when either block
// cannot be had (the frame is then not queued).
_IRQL_requires_max_(DISPATCH_LEVEL) FORCEINLINE PacketEntry* PacketEntryCreate(const UCHAR* frame,
                                                                               ULONG length)
{
    PacketEntry* entry =
        (PacketEntry*)ExAllocatePoolWithTag(NonPagedPoolNx, sizeof(PacketEntry), DRIVER_POOL_TAG);
    if (entry == NULL) {
        return NULL;
    }
    InitializeListHead(&entry->ListEntry);
    entry->Packet = (PUCHAR)ExAllocatePoolWithTag(NonPagedPoolNx, length, DRIVER_POOL_TAG);
    if (entry->Packet == NULL) {
        ExFreePoolWithTag(entry, ANY_POOL_TAG);
        return NULL;
    }
    RtlCopyMemory(entry->Packet, frame, length);
    entry->Length = (LONG)length;
    return entry;
}

// Frees an entry that is off its list, with its frame. An entry without a frame is left
// alone: none is ever queued.
_IRQL_requires_max_(DISPATCH_LEVEL) FORCEINLINE VOID PacketEntryFree(PacketEntry* entry)
{
    if (entry->Packet != NULL) {
        ExFreePoolWithTag(entry->Packet, ANY_POOL_TAG);
        ExFreePoolWithTag(entry, ANY_POOL_TAG);
    }
}
