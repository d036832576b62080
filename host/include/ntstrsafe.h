// Drop-in subset of ntstrsafe.h: bounded formatting that fails instead of overflowing.
// The formats are the kernel's (%I64x, %ws, %wZ and %S as well as the C ones); in the W
// routines %s takes a wide string, as it does there.
#pragma once

#include <stdarg.h>
#include <wdm.h>

#define NTSTRSAFE_MAX_CCH 2147483647
#define NTSTRSAFE_UNICODE_STRING_MAX_CCH 32767

EXTERN_C_START
NTSTATUS RtlStringCchPrintfA(PSTR pszDest, size_t cchDest, PCSTR pszFormat, ...);
NTSTATUS RtlStringCbPrintfA(PSTR pszDest, size_t cbDest, PCSTR pszFormat, ...);
NTSTATUS RtlStringCchPrintfW(PWSTR pszDest, size_t cchDest, PCWSTR pszFormat, ...);
NTSTATUS RtlStringCbPrintfW(PWSTR pszDest, size_t cbDest, PCWSTR pszFormat, ...);
NTSTATUS RtlStringCchVPrintfA(PSTR pszDest, size_t cchDest, PCSTR pszFormat, va_list argList);
NTSTATUS RtlStringCchVPrintfW(PWSTR pszDest, size_t cchDest, PCWSTR pszFormat, va_list argList);
NTSTATUS RtlUnicodeStringPrintf(PUNICODE_STRING DestinationString, PCWSTR pszFormat, ...);
NTSTATUS RtlStringCchCopyW(PWSTR pszDest, size_t cchDest, PCWSTR pszSrc);
NTSTATUS RtlStringCchCopyA(PSTR pszDest, size_t cchDest, PCSTR pszSrc);
NTSTATUS RtlStringCchLengthW(PCWSTR psz, size_t cchMax, size_t* pcchLength);
NTSTATUS RtlStringCchLengthA(PCSTR psz, size_t cchMax, size_t* pcchLength);
EXTERN_C_END
