// A failed pool allocation of the platform layer: counted, logged, nothing handed out.
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
