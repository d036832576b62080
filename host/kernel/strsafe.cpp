// Bounded string routines: they never write past the destination, always terminate what
// they wrote, and report truncation as STATUS_BUFFER_OVERFLOW.
#include <ntstrsafe.h>

#include "host/kernel/format.h"

namespace mvgps::kernel::detail
{
namespace
{

// A destination the routines may write: a bad size gets STATUS_INVALID_PARAMETER, and an
// over-large one still gets an empty string, as the real routines leave it.
template <class Ch>
NTSTATUS validate(Ch* dest, size_t cch)
{
    if (dest == nullptr || cch == 0) {
        return STATUS_INVALID_PARAMETER;
    }
    if (cch > NTSTRSAFE_MAX_CCH) {
        dest[0] = 0;
        return STATUS_INVALID_PARAMETER;
    }
    return STATUS_SUCCESS;
}

template <class Ch>
NTSTATUS finish(Ch* dest, const BoundedOut<Ch>& out)
{
    dest[out.length()] = 0;
    return out.overflow() ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

template <class Ch>
NTSTATUS vprintf_cch(Ch* dest, size_t cch, const Ch* format_text, va_list args)
{
    NTSTATUS status = validate(dest, cch);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (format_text == nullptr) {
        dest[0] = 0;
        return STATUS_INVALID_PARAMETER;
    }
    BoundedOut<Ch> out(dest, cch - 1);
    format(out, format_text, args);
    return finish(dest, out);
}

template <class Ch>
NTSTATUS copy_cch(Ch* dest, size_t cch, const Ch* src)
{
    NTSTATUS status = validate(dest, cch);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (src == nullptr) {
        dest[0] = 0;
        return STATUS_INVALID_PARAMETER;
    }
    BoundedOut<Ch> out(dest, cch - 1);
    for (; *src != 0 && !out.overflow(); ++src) {
        out.put(*src);
    }
    return finish(dest, out);
}

template <class Ch>
NTSTATUS length_cch(const Ch* s, size_t cch_max, size_t* length)
{
    size_t n = 0;
    bool valid = s != nullptr && cch_max != 0 && cch_max <= NTSTRSAFE_MAX_CCH;
    while (valid && n < cch_max && s[n] != 0) {
        ++n;
    }
    valid = valid && n < cch_max;
    if (length != nullptr) {
        *length = valid ? n : 0;
    }
    return valid ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
}

} // namespace
} // namespace mvgps::kernel::detail

using namespace mvgps::kernel::detail;

extern "C" {

NTSTATUS RtlStringCchVPrintfA(PSTR pszDest, size_t cchDest, PCSTR pszFormat, va_list argList)
{
    return vprintf_cch(pszDest, cchDest, pszFormat, argList);
}

NTSTATUS RtlStringCchVPrintfW(PWSTR pszDest, size_t cchDest, PCWSTR pszFormat, va_list argList)
{
    return vprintf_cch(pszDest, cchDest, pszFormat, argList);
}

NTSTATUS RtlStringCchPrintfA(PSTR pszDest, size_t cchDest, PCSTR pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    NTSTATUS status = vprintf_cch(pszDest, cchDest, pszFormat, args);
    va_end(args);
    return status;
}

NTSTATUS RtlStringCbPrintfA(PSTR pszDest, size_t cbDest, PCSTR pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    NTSTATUS status = vprintf_cch(pszDest, cbDest, pszFormat, args);
    va_end(args);
    return status;
}

NTSTATUS RtlStringCchPrintfW(PWSTR pszDest, size_t cchDest, PCWSTR pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    NTSTATUS status = vprintf_cch(pszDest, cchDest, pszFormat, args);
    va_end(args);
    return status;
}

NTSTATUS RtlStringCbPrintfW(PWSTR pszDest, size_t cbDest, PCWSTR pszFormat, ...)
{
    va_list args;
    va_start(args, pszFormat);
    NTSTATUS status = vprintf_cch(pszDest, cbDest / sizeof(WCHAR), pszFormat, args);
    va_end(args);
    return status;
}

NTSTATUS RtlUnicodeStringPrintf(PUNICODE_STRING DestinationString, PCWSTR pszFormat, ...)
{
    UNICODE_STRING* d = DestinationString;
    if (d == nullptr || pszFormat == nullptr || (d->Buffer == nullptr && d->MaximumLength != 0) ||
        d->Length % sizeof(WCHAR) != 0 || d->MaximumLength % sizeof(WCHAR) != 0 ||
        d->Length > d->MaximumLength) {
        return STATUS_INVALID_PARAMETER;
    }
    BoundedOut<WCHAR> out(d->Buffer, d->MaximumLength / sizeof(WCHAR));
    va_list args;
    va_start(args, pszFormat);
    format(out, pszFormat, args);
    va_end(args);
    d->Length = static_cast<USHORT>(out.length() * sizeof(WCHAR));
    return out.overflow() ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS;
}

NTSTATUS RtlStringCchCopyW(PWSTR pszDest, size_t cchDest, PCWSTR pszSrc)
{
    return copy_cch(pszDest, cchDest, pszSrc);
}

NTSTATUS RtlStringCchCopyA(PSTR pszDest, size_t cchDest, PCSTR pszSrc)
{
    return copy_cch(pszDest, cchDest, pszSrc);
}

NTSTATUS RtlStringCchLengthW(PCWSTR psz, size_t cchMax, size_t* pcchLength)
{
    return length_cch(psz, cchMax, pcchLength);
}

NTSTATUS RtlStringCchLengthA(PCSTR psz, size_t cchMax, size_t* pcchLength)
{
    return length_cch(psz, cchMax, pcchLength);
}

} // extern "C"
