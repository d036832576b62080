// Counted strings and memory comparison.
#include <wdm.h>

#include <algorithm>

namespace
{

// Longest counted string: USHORT byte counts, room for the terminator.
constexpr USHORT kMaxUnicodeBytes = 0xFFFC;
constexpr USHORT kMaxAnsiBytes = 0xFFFE;

// Paths and names the driver compares are ASCII; other letters compare exactly.
WCHAR upcase(WCHAR c)
{
    return (c >= u'a' && c <= u'z') ? static_cast<WCHAR>(c - 0x20) : c;
}

} // namespace

extern "C" {

SIZE_T mvgps_RtlCompareMemory(const VOID* Source1, const VOID* Source2, SIZE_T Length)
{
    auto* a = static_cast<const UCHAR*>(Source1);
    auto* b = static_cast<const UCHAR*>(Source2);
    return static_cast<SIZE_T>(std::mismatch(a, a + Length, b).first - a);
}

VOID RtlInitUnicodeString(PUNICODE_STRING DestinationString, PCWSTR SourceString)
{
    size_t bytes = 0;
    if (SourceString != nullptr) {
        while (SourceString[bytes / sizeof(WCHAR)] != 0 && bytes < kMaxUnicodeBytes) {
            bytes += sizeof(WCHAR);
        }
    }
    DestinationString->Length = static_cast<USHORT>(bytes);
    DestinationString->MaximumLength =
        SourceString ? static_cast<USHORT>(bytes + sizeof(WCHAR)) : USHORT{0};
    DestinationString->Buffer = const_cast<PWCH>(SourceString);
}

VOID RtlInitAnsiString(PANSI_STRING DestinationString, PCSZ SourceString)
{
    size_t bytes = 0;
    if (SourceString != nullptr) {
        while (SourceString[bytes] != 0 && bytes < kMaxAnsiBytes) {
            ++bytes;
        }
    }
    DestinationString->Length = static_cast<USHORT>(bytes);
    DestinationString->MaximumLength = SourceString ? static_cast<USHORT>(bytes + 1) : USHORT{0};
    DestinationString->Buffer = const_cast<PCHAR>(SourceString);
}

LONG RtlCompareUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                             BOOLEAN CaseInSensitive)
{
    size_t n1 = String1->Length / sizeof(WCHAR);
    size_t n2 = String2->Length / sizeof(WCHAR);
    for (size_t i = 0; i < std::min(n1, n2); ++i) {
        WCHAR a = String1->Buffer[i];
        WCHAR b = String2->Buffer[i];
        if (CaseInSensitive) {
            a = upcase(a);
            b = upcase(b);
        }
        if (a != b) {
            return static_cast<LONG>(a) - static_cast<LONG>(b);
        }
    }
    return static_cast<LONG>(n1) - static_cast<LONG>(n2);
}

BOOLEAN RtlEqualUnicodeString(PCUNICODE_STRING String1, PCUNICODE_STRING String2,
                              BOOLEAN CaseInSensitive)
{
    return String1->Length == String2->Length &&
           RtlCompareUnicodeString(String1, String2, CaseInSensitive) == 0;
}

} // extern "C"
