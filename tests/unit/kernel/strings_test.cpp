// Strings: the kernel's print formats (DbgPrint), the bounded string routines built on
// them, counted strings, and the device-interface lists.
#include <initguid.h>
#include <ntstrsafe.h>
#include <wdm.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "host/kernel/kernel.h"

namespace mvgps::kernel::test
{
namespace
{

// What one call leaves in a cleared debug ring.
template <class... Args>
std::string printed(const char* format, Args... args)
{
    clear_debug_output();
    DbgPrint(format, args...);
    return debug_output();
}

TEST(DbgPrint, FormatsIntoTheDebugRing)
{
    // The driver's log line: a prefix and a message, one call each.
    const std::string prefix = "\n[MV_GPS](  42)FdoDevPrepareHardware" + std::string(21, ' ');
    EXPECT_EQ(printed("\n[MV_GPS](%4d)%-40.39s  ", 42, "FdoDevPrepareHardware"), prefix);
    DbgPrint("Entry");
    EXPECT_EQ(debug_output(), prefix + "Entry");
    clear_debug_output();
    EXPECT_EQ(debug_output(), "");

    // Cut at 39, padded to 40.
    EXPECT_EQ(printed("[%-40.39s]", "0123456789012345678901234567890123456789012345"),
              "[012345678901234567890123456789012345678 ]");
    // A long is 32 bits; 64-bit values need I64 (or ll).
    EXPECT_EQ(printed("%lx %ld %lu", 0xC0000120, -1L, 0xFFFFFFFFUL), "c0000120 -1 4294967295");
    EXPECT_EQ(printed("%I64x %I64d %I64u %0*I64x", 0x100000002LL, -5LL, ~0ULL, 16, 0x100000002LL),
              "100000002 -5 18446744073709551615 0000000100000002");
    EXPECT_EQ(printed("%hhx %hx %llu %02x %X %#x %#X %04x %o", 0x1FF, 0x17FFF, 255ULL, 0xA5, 0xA5,
                      0xA5, 0xA5, 0xA5, 0245),
              "ff 7fff 255 a5 A5 0xa5 0XA5 00a5 245");
    EXPECT_EQ(
        printed("[%5d] [%-5d] [%+d] [% d] [%04d] [%d] [%.0d] [%.5u]", -7, -7, 7, 7, -7, 0, 0, 42),
        "[   -7] [-7   ] [+7] [ 7] [-007] [0] [] [00042]");
    // Wide and counted strings; a wide string given to %s shows its first character, as on
    // the real system, and a character outside ASCII shows as '?'.
    UNICODE_STRING path;
    RtlInitUnicodeString(&path, u"\\Device\\Serial0");
    ANSI_STRING ansi;
    RtlInitAnsiString(&ansi, "counted");
    ansi.Length = 5; // counted strings need no terminator
    EXPECT_EQ(printed("%ws %S %wZ %Z %s %ws", u"COM1", u"COM2", &path, &ansi,
                      reinterpret_cast<const char*>(u"List"), u"\u00e9"),
              "COM1 COM2 \\Device\\Serial0 count L ?");
    EXPECT_EQ(printed("%s %ws %wZ", (char*)nullptr, (WCHAR*)nullptr, (UNICODE_STRING*)nullptr),
              "(null) (null) (null)");
    EXPECT_EQ(printed("%c %C %3c %% %.3s|%4.2s|%-4.2s", 'a', u'W', 'x', "abcdef", "abc", "abc"),
              "a W   x % abc|  ab|ab  ");
    EXPECT_EQ(printed("%p %q", reinterpret_cast<void*>(0xABCD)), "000000000000ABCD %q");
    clear_debug_output();
    DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, "%s", "x");
    EXPECT_EQ(debug_output(), "x");
    // One call passes at most 511 characters, however wide the field.
    EXPECT_EQ(printed("%s!", std::string(600, 'y').c_str()), std::string(511, 'y'));
    EXPECT_EQ(printed("%*d", INT_MAX, 1), std::string(511, ' '));
    EXPECT_EQ(printed("%.*x", INT_MAX, 1), std::string(511, '0'));
}

NTSTATUS print_ab12(char* d, size_t n)
{
    return RtlStringCchPrintfA(d, n, "%s-%d", "ab", 12);
}

// Every routine keeps within the buffer: a guard after the stated size stays untouched.
TEST(StrSafe, NarrowBounds)
{
    struct Case {
        const char* name;
        size_t size;
        std::function<NTSTATUS(char*, size_t)> call;
        NTSTATUS expected;
        const char* text; // nullptr: destination left alone
    };
    const Case cases[] = {
        {"exactly fits", 6, print_ab12, STATUS_SUCCESS, "ab-12"},
        {"truncated", 5, print_ab12, STATUS_BUFFER_OVERFLOW, "ab-1"},
        {"one character", 1, print_ab12, STATUS_BUFFER_OVERFLOW, ""},
        {"no room", 0, print_ab12, STATUS_INVALID_PARAMETER, nullptr},
        {"too large", 8, [](char* d, size_t) { return print_ab12(d, NTSTRSAFE_MAX_CCH + 1ull); },
         STATUS_INVALID_PARAMETER, ""},
        {"bytes", 4, [](char* d, size_t n) { return RtlStringCbPrintfA(d, n, "%u", 12345u); },
         STATUS_BUFFER_OVERFLOW, "123"},
        {"copy truncated", 4, [](char* d, size_t n) { return RtlStringCchCopyA(d, n, "serial"); },
         STATUS_BUFFER_OVERFLOW, "ser"},
        {"copy of nothing", 4, [](char* d, size_t n) { return RtlStringCchCopyA(d, n, nullptr); },
         STATUS_INVALID_PARAMETER, ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        char buffer[32];
        std::memset(buffer, '#', sizeof buffer);
        EXPECT_EQ(c.call(buffer, c.size), c.expected);
        if (c.text != nullptr) {
            EXPECT_STREQ(buffer, c.text);
        }
        for (size_t i = std::max<size_t>(c.size, c.text ? std::strlen(c.text) + 1 : 0);
             i < sizeof buffer; ++i) {
            ASSERT_EQ(buffer[i], '#') << "byte " << i << " written";
        }
    }
}

// Wide formatting within bounds: a full buffer is cut and terminated, a counted string keeps
// what fits. A malformed counted string or a missing terminator is refused. (The driver's
// own connection path, formatted through the same routines, is checked by its start.)
TEST(StrSafe, WideBounds)
{
    WCHAR digits[16];
    EXPECT_EQ(RtlStringCchPrintfW(digits, 16, u"%0*I64x", 16, 0x100000002LL),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(std::u16string(digits), u"000000010000000");

    WCHAR storage[100];
    UNICODE_STRING path = {0, 16, storage};
    EXPECT_EQ(RtlUnicodeStringPrintf(&path, u"%S|%hs|%c", "0123", "4567", u'8'),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(std::u16string(path.Buffer, path.Length / 2), u"0123|456");

    UNICODE_STRING malformed[] = {
        {0, 7, storage}, {1, 8, storage}, {10, 8, storage}, {0, 8, nullptr}};
    for (UNICODE_STRING& s : malformed) {
        SCOPED_TRACE(testing::Message() << s.Length << "/" << s.MaximumLength);
        EXPECT_EQ(RtlUnicodeStringPrintf(&s, u"x"), STATUS_INVALID_PARAMETER);
    }
    EXPECT_EQ(RtlUnicodeStringPrintf(nullptr, u"x"), STATUS_INVALID_PARAMETER);
    size_t n = 99;
    EXPECT_EQ(RtlStringCchLengthW(u"abc", 3, &n), STATUS_INVALID_PARAMETER) << "no terminator";
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(RtlStringCchLengthA("abc", 4, &n), STATUS_SUCCESS);
    EXPECT_EQ(n, 3u);
}

DEFINE_GUID(GUID_TEST_SERIAL, 0x86E0D1E0, 0x8089, 0x11D0, 0x9C, 0xE4, 0x08, 0x00, 0x3E, 0x30, 0x1F,
            0x73);
DEFINE_GUID(GUID_TEST_EMPTY, 0x11111111, 0x2222, 0x3333, 0x44, 0x44, 0x55, 0x55, 0x55, 0x55, 0x55,
            0x55);

// A lookup's list is a block of pool under 'IoDI' that the caller frees.
std::vector<std::u16string> lookup(const GUID* g, NTSTATUS expected = STATUS_SUCCESS)
{
    PZZWSTR list = nullptr;
    EXPECT_EQ(IoGetDeviceInterfaces(g, nullptr, 0, &list), expected);
    std::vector<std::u16string> out;
    if (!NT_SUCCESS(expected)) {
        return out;
    }
    EXPECT_NE(leak_report().text.find("'IoDI'"), std::string::npos);
    for (PWSTR p = list; p != nullptr && *p != 0; p += out.back().size() + 1) {
        out.emplace_back(p);
    }
    ExFreePoolWithTag(list, 0);
    return out;
}

TEST(DeviceInterfaces, ListFollowsTheRegistry)
{
    using List = std::vector<std::u16string>;
    EXPECT_EQ(lookup(&GUID_TEST_EMPTY), List{}) << "an empty list is one terminator";

    register_interface(GUID_TEST_SERIAL, u"\\??\\COM7");
    register_interface(GUID_TEST_SERIAL, u"\\??\\COM3");
    register_interface(GUID_TEST_SERIAL, u"\\??\\COM7");
    EXPECT_EQ(lookup(&GUID_TEST_SERIAL), (List{u"\\??\\COM7", u"\\??\\COM3"}));
    EXPECT_EQ(lookup(&GUID_TEST_EMPTY), List{}) << "other classes stay apart";
    add_pool_fault(fail_nth(1));
    EXPECT_EQ(lookup(&GUID_TEST_SERIAL, STATUS_INSUFFICIENT_RESOURCES), List{});
    clear_pool_faults();
    EXPECT_EQ(lookup(nullptr, STATUS_INVALID_PARAMETER), List{});

    EXPECT_TRUE(unregister_interface(GUID_TEST_SERIAL, u"\\??\\COM7"));
    EXPECT_FALSE(unregister_interface(GUID_TEST_SERIAL, u"\\??\\COM7"));
    EXPECT_EQ(lookup(&GUID_TEST_SERIAL), List{u"\\??\\COM3"});
    EXPECT_TRUE(unregister_interface(GUID_TEST_SERIAL, u"\\??\\COM3"));
    EXPECT_EQ(interfaces(GUID_TEST_SERIAL), List{});
}

} // namespace
} // namespace mvgps::kernel::test
