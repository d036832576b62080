// The device contexts: FdoExtension, the function device's one record that every thread and
// callback of the driver works on, and the two small contexts of the child device and of the
// work item that enables it.
//
// This is the one header every driver component includes. It holds data only: records,
// their sizes and the context accessors; the code that fills each field lives with the
// component that owns it.
//
// Fields shared between threads without a lock are 32-bit flags read with ReadULongAcquire
// and written with WriteULongRelease (or bytes, with the UChar variants), so that both the
// real compiler and ThreadSanitizer see the intended ordering. The counters beside the
// packet lists change with interlocked operations, hence their signed type.
#pragma once

#include <ntddk.h>
#include <wdf.h>

#include "link/codec/hci.h"
#include "os/os.h"

// The chip answers a memory read of the largest size, 2048 bytes, with a frame of 2048 + 14
// bytes (header 7, err_status 4, CRC 2, tail 1); the acknowledgement buffer holds that.
#define HCI_MEM_READ_MAX 2048
#define HCI_ACK_OVERHEAD 14
#define FDO_ACK_BUFFER_SIZE (HCI_MEM_READ_MAX + HCI_ACK_OVERHEAD)

// The read thread reads the UART in pieces of this size.
#define FDO_READ_BUFFER_SIZE 2048

struct FdoExtension;

// Written once by device set-up and read by nobody; kept with their initial values.
struct FDO_INIT_PARAMS {
    ULONG Word0;
    ULONG Word1;
    ULONG Word2;
    USHORT Word3;
};

// The read side's 64-byte block: a pool block it may own, the way back to the device
// context, the self-managed I/O state and the byte that ReadRequestMemory describes.
struct READ_COMPLETION_BLOCK {
    PVOID PoolBlock;
    FdoExtension* Extension;
    ULONG SelfIoState;
    UCHAR Buffer[1];
    UCHAR Reserved[43];
};
static_assert(sizeof(READ_COMPLETION_BLOCK) == 64, "the read completion block is 64 bytes");

struct FdoExtension {
    WDFWAITLOCK DeviceLock;
    WDFDEVICE Device;
    WDFIOTARGET UartIoTarget;
    FDO_INIT_PARAMS InitParams;
    BOOLEAN DeviceInit_flag;
    LARGE_INTEGER UartConnectionId;
    LARGE_INTEGER I2cConnectionId;
    LARGE_INTEGER GpioConnectionId[3];
    WDFREQUEST UartRequest;
    WDFREQUEST UartRequest2;
    UCHAR RequestBuffer[4];
    WDFMEMORY RequestMemory;
    UCHAR StateByte0;
    UCHAR IsEnable_flag;
    ULONG D0Word;
    KSPIN_LOCK PacketLock; // ReadDataList, DataQueueList, CMD_Request and the read hand-off
    KSPIN_LOCK PacketLock2;

    READ_COMPLETION_BLOCK ReadCompletionBlock;
    WDFREQUEST ReadRequest;
    WDFMEMORY ReadRequestMemory;
    WDFQUEUE ReadEventQueue; // manual queue of client read requests
    volatile LONG ReadEventCount;
    LIST_ENTRY ReadDataList; // PacketEntry records, oldest first
    volatile LONG ReadDataCount;
    WDFQUEUE DataQueue;
    LIST_ENTRY DataQueueList;
    volatile LONG DataQueueCount;
    volatile LONG HciPacketEventCount; // read requests completed

    // The acknowledgement awaited by the command sender, and its copy.
    volatile UCHAR WaitAck_flag;
    volatile UCHAR WaitAckPid;
    volatile UCHAR WaitAckSid;
    PUCHAR AckBuffer; // FDO_ACK_BUFFER_SIZE bytes
    USHORT AckLength;
    // The size device set-up allocated for AckBuffer, set with it: every copy into the
    // buffer is bounded by it, 0 while there is no buffer.
    USHORT AckBufferSize;
    OsSignal* DeviceAssocFinishSignal;
    OsMutex* hci_wr_mutex;
    OsSignal* DataFinishSignal;
    OsSignal* Threadread_FinishSignal;
    OsSignal* Threadprocess_FinishSignal;
    PVOID ProcessThread; // the processing thread's object, kept as ReadThread is
    ULONG DownloadFail_flag;

    UCHAR ReadBuffer[FDO_READ_BUFFER_SIZE];
    UCHAR ReadThreadByte;
    volatile ULONG Thread_flag;     // the processing thread runs while 1
    volatile ULONG Threadread_flag; // the read thread runs while 1
    // The running read thread's object, kept by whoever starts the thread so that every stop
    // can wait for the thread to be gone before its code may be unloaded.
    PVOID ReadThread;
    volatile ULONG ReadEnable_flag; // reads may be sent; a cancelled read clears it
    volatile ULONG HwPrepared_flag;
    hci_circ RecvCirc;
    volatile ULONG ReadThreadRunning;
    ULONG ReadMode;
    ULONG Initialized_flag;

    // The raw command whose answer completes a client request. CMD_Pid and CMD_Sid are
    // written with WriteUCharRelease; CMD_Request is changed only under PacketLock, with
    // WritePointerRelease, because the receive path tests it for NULL before taking the lock.
    // The receive path clears it when it completes the request.
    volatile UCHAR CMD_Pid;
    volatile UCHAR CMD_Sid;
    WDFREQUEST CMD_Request;
    WDFREQUEST Geofence_Request;
    ULONG64 CmdWord;
    ULONG BaudRate;
};
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(FdoExtension, FdoGetExtension)

struct PdoExtension {
    FdoExtension* ParentExtension;
    ULONG SerialNo;
};
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(PdoExtension, PdoGetExtension)

struct WorkItemContext {
    WDFDEVICE Device; // the parent the work item enables a child for
};
WDF_DECLARE_CONTEXT_TYPE_WITH_NAME(WorkItemContext, WorkItemGetContext)
