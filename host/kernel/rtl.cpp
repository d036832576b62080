// Counted strings.
#include <wdm.h>

namespace
{

// Longest counted string: USHORT byte counts, room for the terminator.
constexpr USHORT kMaxUnicodeBytes = 0xFFFC;
constexpr USHORT kMaxAnsiBytes = 0xFFFE;

} // namespace

extern "C" {

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

} // extern "C"
