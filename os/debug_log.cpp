#include "os/debug_log.h"

#include <ntstrsafe.h>

ULONG DebugLogMask = DEBUG_LOG_MASK_DEFAULT;

// {6B0E6E2D-3F4A-4C1B-9E57-2A8D5C7F1E93}: the driver's trace provider.
static const GUID DebugLogProvider = {
    0x6B0E6E2D, 0x3F4A, 0x4C1B, {0x9E, 0x57, 0x2A, 0x8D, 0x5C, 0x7F, 0x1E, 0x93}};

// Zero while no provider is registered (before DriverEntry, after cleanup, or when the
// registration failed): tracing then costs one test.
static REGHANDLE DebugLogTraceHandle;

// Trace levels of the event-tracing convention: errors, and everything else as verbose.
#define TRACE_LEVEL_FOR_ERROR 2
#define TRACE_LEVEL_FOR_OTHERS 5
// One traced line: longer ones are cut, as the debugger cuts a long print.
#define TRACE_LINE_CHARS 256

_Use_decl_annotations_ VOID DebugLogStartTrace(VOID)
{
    if (!NT_SUCCESS(EtwRegister(&DebugLogProvider, NULL, NULL, &DebugLogTraceHandle))) {
        DebugLogTraceHandle = 0;
    }
}

_Use_decl_annotations_ VOID DebugLogStopTrace(VOID)
{
    if (DebugLogTraceHandle != 0) {
        (VOID) EtwUnregister(DebugLogTraceHandle);
        DebugLogTraceHandle = 0;
    }
}

VOID DebugLogTrace(ULONG Class, int Line, PCSTR Function, PCSTR Format, ...)
{
    UCHAR level = Class == DBG_ERROR ? TRACE_LEVEL_FOR_ERROR : TRACE_LEVEL_FOR_OTHERS;
    if (DebugLogTraceHandle == 0 || !EtwProviderEnabled(DebugLogTraceHandle, level, Class)) {
        return;
    }
    CHAR text[TRACE_LINE_CHARS];
    size_t used = 0;
    // A cut line is still traced: the formatting routines leave it terminated.
    (VOID) RtlStringCchPrintfA(text, TRACE_LINE_CHARS, "[MV_GPS](%4d)%-40.39s  ", Line, Function);
    (VOID) RtlStringCchLengthA(text, TRACE_LINE_CHARS, &used);
    va_list args;
    va_start(args, Format);
    (VOID) RtlStringCchVPrintfA(text + used, TRACE_LINE_CHARS - used, Format, args);
    va_end(args);

    WCHAR wide[TRACE_LINE_CHARS];
    size_t i = 0;
    for (; i + 1 < TRACE_LINE_CHARS && text[i] != 0; i++) {
        wide[i] = (WCHAR)(UCHAR)text[i];
    }
    wide[i] = 0;
    (VOID) EtwWriteString(DebugLogTraceHandle, level, Class, NULL, wide);
}
