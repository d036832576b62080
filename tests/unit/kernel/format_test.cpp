// The kernel's print formats (DbgPrint) and the bounded string routines built on them.
#include <ntstrsafe.h>
#include <wdm.h>

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <functional>
#include <string>

#include "kernel/kernel.h"

namespace mvgps::kernel::test
{
namespace
{

std::string printed(const std::function<void()>& print)
{
    clear_debug_output();
    print();
    return debug_output();
}

TEST(DbgPrint, Formats)
{
    UNICODE_STRING path;
    RtlInitUnicodeString(&path, u"\\Device\\Serial0");
    ANSI_STRING ansi;
    RtlInitAnsiString(&ansi, "counted");
    ansi.Length = 5; // counted strings need no terminator
    struct Case {
        std::string expected;
        std::function<void()> print;
    };
    const Case cases[] = {
        // The driver's two-part log line.
        {"\n[MV_GPS](  42)FdoDevPrepareHardware" + std::string(19 + 2, ' '),
         [] { DbgPrint("\n[MV_GPS](%4d)%-40.39s  ", 42, "FdoDevPrepareHardware"); }},
        {"[012345678901234567890123456789012345678 ]", // cut at 39, padded to 40
         [] { DbgPrint("[%-40.39s]", "0123456789012345678901234567890123456789012345"); }},
        // A long is 32 bits; 64-bit values need I64 (or ll).
        {"c0000120 -1 4294967295", [] { DbgPrint("%lx %ld %lu", 0xC0000120, -1L, 0xFFFFFFFFUL); }},
        {"100000002 -5 18446744073709551615 0000000100000002",
         [] {
             DbgPrint("%I64x %I64d %I64u %0*I64x", 0x100000002LL, -5LL, ~0ULL, 16, 0x100000002LL);
         }},
        {"ff 7fff 255", [] { DbgPrint("%hhx %hx %llu", 0x1FF, 0x17FFF, 255ULL); }},
        {"a5 A5 0xa5 0XA5 00a5 245",
         [] { DbgPrint("%02x %X %#x %#X %04x %o", 0xA5, 0xA5, 0xA5, 0xA5, 0xA5, 0245); }},
        {"[   -7] [-7   ] [+7] [ 7] [-007]",
         [] { DbgPrint("[%5d] [%-5d] [%+d] [% d] [%04d]", -7, -7, 7, 7, -7); }},
        {"[0] [] [00042]", [] { DbgPrint("[%d] [%.0d] [%.5u]", 0, 0, 42); }},
        // Wide and counted strings.
        {"COM1 COM2 \\Device\\Serial0 count",
         [&] { DbgPrint("%ws %S %wZ %Z", u"COM1", u"COM2", &path, &ansi); }},
        {"(null) (null) (null)",
         [] { DbgPrint("%s %ws %wZ", (char*)nullptr, (WCHAR*)nullptr, (UNICODE_STRING*)nullptr); }},
        {"a W   x %", [] { DbgPrint("%c %C %3c %%", 'a', u'W', 'x'); }},
        {"abc|  ab|ab  ", [] { DbgPrint("%.3s|%4.2s|%-4.2s", "abcdef", "abc", "abc"); }},
        // A wide string given to %s shows its first character, as on the real system.
        {"L", [] { DbgPrint("%s", reinterpret_cast<const char*>(u"List")); }},
        {"?", [] { DbgPrint("%ws", u"\u00e9"); }},
        {"000000000000ABCD", [] { DbgPrint("%p", reinterpret_cast<void*>(0xABCD)); }},
        {"%q", [] { DbgPrint("%q"); }},
        {"x", [] { DbgPrintEx(DPFLTR_IHVDRIVER_ID, DPFLTR_ERROR_LEVEL, "%s", "x"); }},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(printed(c.print), c.expected);
    }
}

TEST(DbgPrint, OneCallPassesAtMost511Characters)
{
    std::string long_text(600, 'y');
    std::string out = printed([&] { DbgPrint("%s!", long_text.c_str()); });
    EXPECT_EQ(out, std::string(511, 'y'));
}

TEST(DbgPrint, HugeWidthsStopAtTheBound)
{
    EXPECT_EQ(printed([] { DbgPrint("%*d", INT_MAX, 1); }).size(), 511u);
    EXPECT_EQ(printed([] { DbgPrint("%.*x", INT_MAX, 1); }), std::string(511, '0'));
}

TEST(DbgPrint, OutputAccumulatesUntilCleared)
{
    clear_debug_output();
    DbgPrint("one ");
    DbgPrint("two");
    EXPECT_EQ(debug_output(), "one two");
    clear_debug_output();
    EXPECT_EQ(debug_output(), "");
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
        {"fits", 8, [](char* d, size_t n) { return RtlStringCchPrintfA(d, n, "%s-%d", "ab", 12); },
         STATUS_SUCCESS, "ab-12"},
        {"exactly fits", 6,
         [](char* d, size_t n) { return RtlStringCchPrintfA(d, n, "%s-%d", "ab", 12); },
         STATUS_SUCCESS, "ab-12"},
        {"truncated", 5,
         [](char* d, size_t n) { return RtlStringCchPrintfA(d, n, "%s-%d", "ab", 12); },
         STATUS_BUFFER_OVERFLOW, "ab-1"},
        {"one character", 1, [](char* d, size_t n) { return RtlStringCchPrintfA(d, n, "x"); },
         STATUS_BUFFER_OVERFLOW, ""},
        {"no room", 0, [](char* d, size_t n) { return RtlStringCchPrintfA(d, n, "x"); },
         STATUS_INVALID_PARAMETER, nullptr},
        {"too large", 8,
         [](char* d, size_t) { return RtlStringCchPrintfA(d, NTSTRSAFE_MAX_CCH + 1ull, "x"); },
         STATUS_INVALID_PARAMETER, ""},
        {"bytes", 4, [](char* d, size_t n) { return RtlStringCbPrintfA(d, n, "%u", 12345u); },
         STATUS_BUFFER_OVERFLOW, "123"},
        {"copy", 8, [](char* d, size_t n) { return RtlStringCchCopyA(d, n, "serial"); },
         STATUS_SUCCESS, "serial"},
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
        if (c.text == nullptr) {
            EXPECT_EQ(buffer[0], '#');
        } else {
            EXPECT_STREQ(buffer, c.text);
        }
        for (size_t i = std::max<size_t>(c.size, c.text ? std::strlen(c.text) + 1 : 0);
             i < sizeof buffer; ++i) {
            ASSERT_EQ(buffer[i], '#') << "byte " << i << " written";
        }
    }
}

// The UART path: sixteen hex digits into a 17-character buffer, then prefix and digits
// into a counted string of at most 200 bytes.
TEST(StrSafe, WideFormattingOfTheConnectionPath)
{
    WCHAR digits[17];
    EXPECT_EQ(RtlStringCchPrintfW(digits, 17, u"%0*I64x", 16, 0x100000002LL), STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(digits), u"0000000100000002");
    EXPECT_EQ(RtlStringCchPrintfW(digits, 16, u"%0*I64x", 16, 0x100000002LL),
              STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(std::u16string(digits), u"000000010000000");

    WCHAR storage[100];
    UNICODE_STRING path = {0, sizeof storage, storage};
    EXPECT_EQ(RtlUnicodeStringPrintf(&path, u"%s%s", u"\\Device\\RESOURCE_HUB\\", digits),
              STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(path.Buffer, path.Length / 2),
              u"\\Device\\RESOURCE_HUB\\000000010000000");

    WCHAR small_storage[8];
    UNICODE_STRING small = {0, sizeof small_storage, small_storage};
    EXPECT_EQ(RtlUnicodeStringPrintf(&small, u"%s", u"0123456789"), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(std::u16string(small.Buffer, small.Length / 2), u"01234567");

    WCHAR narrow_in_wide[16];
    EXPECT_EQ(
        RtlStringCbPrintfW(narrow_in_wide, sizeof narrow_in_wide, u"%S|%hs|%c", "ab", "cd", u'e'),
        STATUS_SUCCESS);
    EXPECT_EQ(std::u16string(narrow_in_wide), u"ab|cd|e");
}

TEST(StrSafe, MalformedCountedStringsAreRejected)
{
    WCHAR storage[8];
    struct Case {
        const char* name;
        UNICODE_STRING s;
    };
    const Case cases[] = {
        {"odd maximum", {0, 7, storage}},
        {"odd length", {1, 8, storage}},
        {"length past maximum", {10, 8, storage}},
        {"no buffer", {0, 8, nullptr}},
    };
    for (Case c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(RtlUnicodeStringPrintf(&c.s, u"x"), STATUS_INVALID_PARAMETER);
    }
    EXPECT_EQ(RtlUnicodeStringPrintf(nullptr, u"x"), STATUS_INVALID_PARAMETER);
}

TEST(StrSafe, Lengths)
{
    struct Case {
        const char* text;
        size_t max;
        NTSTATUS expected;
        size_t length;
    };
    const Case cases[] = {
        {"abc", 4, STATUS_SUCCESS, 3},
        {"abc", 3, STATUS_INVALID_PARAMETER, 0}, // no terminator within the limit
        {"", 1, STATUS_SUCCESS, 0},
        {"abc", 0, STATUS_INVALID_PARAMETER, 0},
        {nullptr, 4, STATUS_INVALID_PARAMETER, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text ? c.text : "null");
        size_t n = 99;
        EXPECT_EQ(RtlStringCchLengthA(c.text, c.max, &n), c.expected);
        EXPECT_EQ(n, c.length);
        std::string narrow = c.text ? c.text : "";
        std::u16string wide(narrow.begin(), narrow.end());
        n = 99;
        EXPECT_EQ(RtlStringCchLengthW(c.text ? wide.c_str() : nullptr, c.max, &n), c.expected);
        EXPECT_EQ(n, c.length);
    }
}

} // namespace
} // namespace mvgps::kernel::test
