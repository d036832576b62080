// Pool blocks of the platform layer and the allocator statistics.
#include "os_fixture.h"

namespace mvgps::test
{
namespace
{

using testing::HasSubstr;
using testing::Not;

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
    ASSERT_EQ(OsAllocateMemory(&block, 100), OS_SUCCESS);
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(counters(),
              (Counters{before.alloc + 1, before.bytes + 100, before.fail, before.free}));
    EXPECT_EQ(live_os_blocks(), blocks + 1);
    EXPECT_EQ(kernel::pool_stats(OS_POOL_TAG).tag, 0x4D564254u);

    OsFreeMemory(&block);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(counters(),
              (Counters{before.alloc + 1, before.bytes + 100, before.fail, before.free + 1}));
    EXPECT_EQ(live_os_blocks(), blocks);
    EXPECT_THAT(log(), Not(HasSubstr("OS:")));
}

TEST_F(MemoryTest, FailedAllocation)
{
    const Counters before = counters();
    kernel::add_pool_fault(kernel::fail_nth(1, OS_POOL_TAG));
    PVOID block = &block;
    EXPECT_EQ(OsAllocateMemory(&block, 64), OS_NO_MEMORY);
    EXPECT_EQ(block, nullptr);
    EXPECT_EQ(counters(), (Counters{before.alloc, before.bytes, before.fail + 1, before.free}));
    EXPECT_THAT(log(), HasSubstr(os_log_line("OsAllocateMemory", "OS: Allocat Memory Error")));

    kernel::add_pool_fault(kernel::fail_nth(1, OS_POOL_TAG));
    EXPECT_EQ(OsAllocateZeroedMemory(&block, 64, 2), OS_NO_MEMORY);
    EXPECT_EQ(block, nullptr);
}

TEST_F(MemoryTest, ZeroedAllocationIsZero)
{
    PVOID block = nullptr;
    ASSERT_EQ(OsAllocateZeroedMemory(&block, 333, 0), OS_SUCCESS);
    const auto* bytes = static_cast<const unsigned char*>(block);
    for (int i = 0; i < 333; i++) {
        ASSERT_EQ(bytes[i], 0) << i;
    }
    OsFreeMemory(&block);
}

TEST_F(MemoryTest, FreeingNothingOnlyLogs)
{
    PVOID null_block = nullptr;
    PVOID* const cases[] = {nullptr, &null_block};
    for (PVOID* argument : cases) {
        kernel::clear_debug_output();
        const Counters before = counters();
        OsFreeMemory(argument);
        EXPECT_EQ(counters(), before);
        EXPECT_THAT(log(),
                    HasSubstr(os_log_line("OsFreeMemory", "OS: Specified buffer is null already")));
    }
}

} // namespace
} // namespace mvgps::test
