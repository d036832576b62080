// Drop-in subset of reshub.h: the path under which the Resource Hub exposes a connection
// resource. With RESHUB_USE_HELPER_ROUTINES the path-building helper is available.
#pragma once

#include <wdm.h>

// Driver code has a 2-byte wchar_t; host code spells the same text as char16_t.
#if __SIZEOF_WCHAR_T__ == 2
#define RESOURCE_HUB_DEVICE_NAME L"\\Device\\RESOURCE_HUB"
#define RESOURCE_HUB_PATH_PREFIX L"\\Device\\RESOURCE_HUB\\"
#define RESOURCE_HUB_ID_FORMAT L"%0*I64x"
#define RESOURCE_HUB_JOIN_FORMAT L"%s%s"
#else
#define RESOURCE_HUB_DEVICE_NAME u"\\Device\\RESOURCE_HUB"
#define RESOURCE_HUB_PATH_PREFIX u"\\Device\\RESOURCE_HUB\\"
#define RESOURCE_HUB_ID_FORMAT u"%0*I64x"
#define RESOURCE_HUB_JOIN_FORMAT u"%s%s"
#endif
// A connection id is printed as 16 hexadecimal digits.
#define RESOURCE_HUB_ID_CHARS (sizeof(LARGE_INTEGER) * 2)
#define RESOURCE_HUB_FILE_SIZE (RESOURCE_HUB_ID_CHARS + 1)
// Room for the whole path, in characters (DECLARE_UNICODE_STRING_SIZE counts characters).
#define RESOURCE_HUB_PATH_SIZE 100

#ifdef RESHUB_USE_HELPER_ROUTINES
#include <ntstrsafe.h>

FORCEINLINE NTSTATUS RESOURCE_HUB_CREATE_PATH_FROM_ID(PUNICODE_STRING DevicePath, ULONG IdLowPart,
                                                      ULONG IdHighPart)
{
    WCHAR FileName[RESOURCE_HUB_FILE_SIZE];
    LARGE_INTEGER Id;
    NTSTATUS Status;

    Id.LowPart = IdLowPart;
    Id.HighPart = (LONG)IdHighPart;
    Status = RtlStringCchPrintfW(FileName, RESOURCE_HUB_FILE_SIZE, RESOURCE_HUB_ID_FORMAT,
                                 (int)RESOURCE_HUB_ID_CHARS, Id.QuadPart);
    if (!NT_SUCCESS(Status)) {
        return Status;
    }
    return RtlUnicodeStringPrintf(DevicePath, RESOURCE_HUB_JOIN_FORMAT, RESOURCE_HUB_PATH_PREFIX,
                                  FileName);
}
#endif
