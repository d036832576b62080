// The driver's debug log: every line is a prefix naming the source line and function,
// then the message, printed only when its class bit is set in DebugLogMask.
#pragma once

#include <wdm.h>

#define DBG_ENTRY 0x00000001u    // function-entry traces of the lifecycle code
#define DBG_BANNER 0x00000002u   // banner and child-device messages
#define DBG_OS 0x00000004u       // platform-layer and serial-control errors, transmit details
#define DBG_TRACE 0x00000008u    // entry/exit of synchronous writes, end-of-callback status
#define DBG_READQ 0x00000010u    // read-queue exit
#define DBG_CHILD 0x00000020u    // child request rejects
#define DBG_BAUD 0x00000040u     // baud-rate switch
#define DBG_COMPLETE 0x20000000u // request-completion detail
#define DBG_QUEUE 0x40000000u    // queue warnings
#define DBG_ERROR 0x80000000u    // errors, thread and I/O traces

#define DEBUG_LOG_MASK_DEFAULT 0xC000005Eu

// Never changed by the driver itself; a kernel debugger may patch it.
extern ULONG DebugLogMask;

// The error class is the sign bit, so it is tested as the sign of the mask.
FORCEINLINE BOOLEAN DbgClassEnabled(ULONG Class)
{
    if (Class == DBG_ERROR) {
        return (LONG)DebugLogMask < 0;
    }
    return (DebugLogMask & Class) != 0;
}

// Event tracing repeats every printed line as one string event of the driver's own
// provider, keyword the line's class. The provider is registered for as long as the driver
// object lives; a line is formatted for tracing only while a session listens.
_IRQL_requires_max_(PASSIVE_LEVEL) VOID DebugLogStartTrace(VOID);
_IRQL_requires_max_(PASSIVE_LEVEL) VOID DebugLogStopTrace(VOID);
VOID DebugLogTrace(ULONG Class, int Line, PCSTR Function, PCSTR Format, ...);

// Prints under the name of the function that owns the message. Small helpers pass their
// caller's name, so a line always carries the name an operator searches the log for. The
// arguments are evaluated once for each sink, so they must have no side effects.
#define MvDbgPrintAs(Function, Class, ...)                                                         \
    do {                                                                                           \
        if (DbgClassEnabled(Class)) {                                                              \
            DbgPrint("\n[MV_GPS](%4d)%-40.39s  ", __LINE__, Function);                             \
            DbgPrint(__VA_ARGS__);                                                                 \
            DebugLogTrace(Class, __LINE__, Function, __VA_ARGS__);                                 \
        }                                                                                          \
    } while (0)

#define MvDbgPrint(Class, ...) MvDbgPrintAs(__FUNCTION__, Class, __VA_ARGS__)
