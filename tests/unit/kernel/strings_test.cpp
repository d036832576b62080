// Counted strings, memory comparison and the device-interface lookup.
#include <initguid.h>
#include <wdm.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kernel/kernel.h"

namespace mvgps::kernel::test
{
namespace
{

DEFINE_GUID(GUID_TEST_SERIAL, 0x86E0D1E0, 0x8089, 0x11D0, 0x9C, 0xE4, 0x08, 0x00, 0x3E, 0x30, 0x1F,
            0x73);
DEFINE_GUID(GUID_TEST_EMPTY, 0x11111111, 0x2222, 0x3333, 0x44, 0x44, 0x55, 0x55, 0x55, 0x55, 0x55,
            0x55);

TEST(UnicodeString, InitCountsBytesWithoutTheTerminator)
{
    UNICODE_STRING s;
    RtlInitUnicodeString(&s, u"COM3");
    EXPECT_EQ(s.Length, 8);
    EXPECT_EQ(s.MaximumLength, 10);
    RtlInitUnicodeString(&s, nullptr);
    EXPECT_EQ(s.Length, 0);
    EXPECT_EQ(s.MaximumLength, 0);
    EXPECT_EQ(s.Buffer, nullptr);
    ANSI_STRING a;
    RtlInitAnsiString(&a, "COM3");
    EXPECT_EQ(a.Length, 4);
    EXPECT_EQ(a.MaximumLength, 5);
}

TEST(UnicodeString, Compare)
{
    struct Case {
        const char16_t* a;
        const char16_t* b;
        bool case_insensitive;
        int sign;
    };
    const Case cases[] = {
        {u"abc", u"abc", false, 0},        {u"abc", u"ABC", false, 1}, {u"abc", u"ABC", true, 0},
        {u"abc", u"abd", true, -1},        {u"ab", u"abc", false, -1}, {u"", u"", false, 0},
        {u"\\??\\x", u"\\??\\X", true, 0},
    };
    for (const Case& c : cases) {
        UNICODE_STRING a, b;
        RtlInitUnicodeString(&a, c.a);
        RtlInitUnicodeString(&b, c.b);
        LONG r = RtlCompareUnicodeString(&a, &b, c.case_insensitive);
        EXPECT_EQ((r > 0) - (r < 0), c.sign);
        EXPECT_EQ(RtlEqualUnicodeString(&a, &b, c.case_insensitive), c.sign == 0);
    }
}

TEST(Memory, CompareCountsTheEqualPrefix)
{
    const UCHAR a[] = {1, 2, 3, 4};
    struct Case {
        std::vector<UCHAR> b;
        SIZE_T length;
        SIZE_T expected;
    };
    const Case cases[] = {
        {{1, 2, 3, 4}, 4, 4},
        {{1, 2, 9, 4}, 4, 2},
        {{9, 2, 3, 4}, 4, 0},
        {{1, 2, 3, 4}, 0, 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(RtlCompareMemory(a, c.b.data(), c.length), c.expected);
    }
}

std::vector<std::u16string> lookup(const GUID& g, NTSTATUS expected = STATUS_SUCCESS)
{
    PZZWSTR list = nullptr;
    EXPECT_EQ(IoGetDeviceInterfaces(&g, nullptr, 0, &list), expected);
    std::vector<std::u16string> out;
    if (list == nullptr) {
        return out;
    }
    for (PWSTR p = list; *p != 0; p += out.back().size() + 1) {
        out.emplace_back(p);
    }
    ExFreePoolWithTag(list, 0);
    return out;
}

TEST(DeviceInterfaces, ListFollowsTheRegistry)
{
    using List = std::vector<std::u16string>;
    EXPECT_EQ(lookup(GUID_TEST_EMPTY), List{}) << "an empty list is one terminator";

    register_interface(GUID_TEST_SERIAL, u"\\??\\COM7");
    register_interface(GUID_TEST_SERIAL, u"\\??\\COM3");
    register_interface(GUID_TEST_SERIAL, u"\\??\\COM7");
    EXPECT_EQ(lookup(GUID_TEST_SERIAL), (List{u"\\??\\COM7", u"\\??\\COM3"}));
    EXPECT_EQ(lookup(GUID_TEST_EMPTY), List{}) << "other classes stay apart";

    EXPECT_TRUE(unregister_interface(GUID_TEST_SERIAL, u"\\??\\COM7"));
    EXPECT_FALSE(unregister_interface(GUID_TEST_SERIAL, u"\\??\\COM7"));
    EXPECT_EQ(lookup(GUID_TEST_SERIAL), List{u"\\??\\COM3"});
    EXPECT_TRUE(unregister_interface(GUID_TEST_SERIAL, u"\\??\\COM3"));
    EXPECT_EQ(interfaces(GUID_TEST_SERIAL), List{});
}

TEST(DeviceInterfaces, ListIsPoolThatCanRunOut)
{
    register_interface(GUID_TEST_SERIAL, u"\\??\\COM1");
    PZZWSTR list = nullptr;
    ASSERT_EQ(IoGetDeviceInterfaces(&GUID_TEST_SERIAL, nullptr, 0, &list), STATUS_SUCCESS);
    EXPECT_EQ(leak_report().text.find("'IoDI'") != std::string::npos, true);
    ExFreePoolWithTag(list, 0);

    add_pool_fault(fail_nth(1));
    EXPECT_TRUE(lookup(GUID_TEST_SERIAL, STATUS_INSUFFICIENT_RESOURCES).empty());
    clear_pool_faults();
    unregister_interface(GUID_TEST_SERIAL, u"\\??\\COM1");
    EXPECT_EQ(IoGetDeviceInterfaces(nullptr, nullptr, 0, &list), STATUS_INVALID_PARAMETER);
}

} // namespace
} // namespace mvgps::kernel::test
