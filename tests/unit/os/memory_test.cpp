// Pool blocks of the platform layer and the allocator statistics.
#include <algorithm>

#include "os_fixture.h"

namespace mvgps::test
{
namespace
{

using MemoryTest = OsTest;

struct Counters {
    LONG64 alloc, bytes, fail, free;
    bool operator==(const Counters&) const = default;
};

Counters counters()
{
    return {AllocCount, AllocBytes, AllocFailCount, FreeCount};
}

TEST_F(MemoryTest, AllocateAndFreeAreCounted)
{
    const Counters before = counters();
    const auto blocks = live_os_blocks();
    PVOID block = nullptr;
    ASSERT_EQ(OsAllocateZeroedMemory(&block, 333, 0), OS_SUCCESS);
    const auto* bytes = static_cast<const unsigned char*>(block);
    EXPECT_EQ(std::count(bytes, bytes + 333, 0), 333);
    EXPECT_EQ(live_os_blocks(), blocks + 1);
    OsFreeMemory(&block);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(live_os_blocks(), blocks);
    const Counters after{before.alloc + 1, before.bytes + 333, before.fail, before.free + 1};
    EXPECT_EQ(counters(), after);
    EXPECT_THAT(log(), Not(HasSubstr("OS:")));

    // Freeing nothing only logs.
    for (PVOID* argument : {static_cast<PVOID*>(nullptr), &block}) {
        kernel::clear_debug_output();
        OsFreeMemory(argument);
        EXPECT_EQ(counters(), after);
        EXPECT_THAT(log(),
                    HasSubstr(log_line("OsFreeMemory", "OS: Specified buffer is null already")));
    }
}

TEST_F(MemoryTest, FailedAllocation)
{
    const Counters before = counters();
    kernel::add_pool_fault(kernel::fail_nth(1, OS_POOL_TAG));
    PVOID block = &block;
    EXPECT_EQ(OsAllocateMemory(&block, 64), OS_NO_MEMORY);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(counters(), (Counters{before.alloc, before.bytes, before.fail + 1, before.free}));
    EXPECT_THAT(log(), HasSubstr(log_line("OsAllocateMemory", "OS: Allocat Memory Error")));

    kernel::add_pool_fault(kernel::fail_nth(1, OS_POOL_TAG));
    EXPECT_EQ(OsAllocateZeroedMemory(&block, 64, 2), OS_NO_MEMORY);
    EXPECT_EQ(block, nullptr);
}

} // namespace
} // namespace mvgps::test
