// The debug-log gate and the two-part line every message is printed with.
#include "os_fixture.h"

namespace mvgps::test
{
namespace
{

using DebugLogTest = OsTest;

int print_sample(ULONG log_class)
{
    MvDbgPrint(log_class, "sample %d", 42);
    return __LINE__ - 1;
}

int a_function_whose_name_is_longer_than_the_field()
{
    MvDbgPrint(DBG_ERROR, "long");
    return __LINE__ - 1;
}

TEST_F(DebugLogTest, LinePrefix)
{
    char expected[128];
    int line = print_sample(DBG_ERROR);
    std::snprintf(expected, sizeof expected, "\n[MV_GPS](%4d)%-40s  sample 42", line,
                  "print_sample");
    EXPECT_EQ(log(), expected);

    kernel::clear_debug_output();
    line = a_function_whose_name_is_longer_than_the_field();
    std::snprintf(expected, sizeof expected, "\n[MV_GPS](%4d)%-40s  long", line,
                  "a_function_whose_name_is_longer_than_th");
    EXPECT_EQ(log(), expected);
}

TEST_F(DebugLogTest, ClassBitsGateMessages)
{
    EXPECT_EQ(DebugLogMask, 0xC000005Eu);
    struct Case {
        ULONG mask;
        ULONG log_class;
        bool printed;
    };
    const Case cases[] = {
        {DEBUG_LOG_MASK_DEFAULT, DBG_ENTRY, false},
        {DEBUG_LOG_MASK_DEFAULT, DBG_OS, true},
        {DEBUG_LOG_MASK_DEFAULT, DBG_CHILD, false},
        {DEBUG_LOG_MASK_DEFAULT, DBG_COMPLETE, false},
        {DEBUG_LOG_MASK_DEFAULT, DBG_QUEUE, true},
        // The error class is the sign of the mask.
        {0x80000000u, DBG_ERROR, true},
        {0x80000000u, DBG_OS, false},
        {0x7FFFFFFFu, DBG_ERROR, false},
        {0x7FFFFFFFu, DBG_COMPLETE, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message()
                     << std::hex << "mask " << c.mask << " class " << c.log_class);
        DebugLogMask = c.mask;
        kernel::clear_debug_output();
        print_sample(c.log_class);
        EXPECT_EQ(log().find("sample 42") != std::string::npos, c.printed);
    }
    DebugLogMask = DEBUG_LOG_MASK_DEFAULT;
}

} // namespace
} // namespace mvgps::test
