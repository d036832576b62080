// Pool accounting, the leak report and the fault rules.
#include <wdm.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "kernel/kernel.h"
#include "verifier/verifier.h"

namespace mvgps::kernel::test
{
namespace
{

// Tags in memory order, the way the driver writes its own ('SHBS' reads SHBS in memory).
constexpr ULONG tag(const char (&t)[5])
{
    return ULONG(UCHAR(t[0])) | ULONG(UCHAR(t[1])) << 8 | ULONG(UCHAR(t[2])) << 16 |
           ULONG(UCHAR(t[3])) << 24;
}

TEST(Pool, CountsLiveBlocksAndBytesPerTag)
{
    const ULONG a = tag("Tpa1"), b = tag("Tpa2");
    std::vector<void*> blocks;
    for (auto [t, size] : {std::pair{a, 10}, {a, 30}, {b, 7}}) {
        blocks.push_back(ExAllocatePoolWithTag(NonPagedPoolNx, size, t));
        ASSERT_NE(blocks.back(), nullptr);
    }
    TagStats sa = pool_stats(a);
    EXPECT_EQ(sa.live_blocks, 2u);
    EXPECT_EQ(sa.live_bytes, 40u);
    EXPECT_EQ(sa.allocations, 2u);
    EXPECT_EQ(pool_stats(b).live_bytes, 7u);

    ExFreePoolWithTag(blocks[0], a);
    ExFreePoolWithTag(blocks[1], 0); // tag 0: no check, as the driver frees its packets
    ExFreePool(blocks[2]);
    sa = pool_stats(a);
    EXPECT_EQ(sa.live_blocks, 0u);
    EXPECT_EQ(sa.live_bytes, 0u);
    EXPECT_EQ(sa.frees, 2u);
    EXPECT_EQ(pool_stats(b).frees, 1u);
}

TEST(Pool, ContentsAndAlignment)
{
    const ULONG t = tag("Tpb1");
    struct Case {
        const char* name;
        void* block;
        bool zeroed;
    };
    const Case cases[] = {
        {"ExAllocatePoolWithTag", ExAllocatePoolWithTag(NonPagedPoolNx, 64, t), false},
        {"ExAllocatePool2", ExAllocatePool2(POOL_FLAG_NON_PAGED, 64, t), true},
        {"ExAllocatePool2 uninitialised",
         ExAllocatePool2(POOL_FLAG_NON_PAGED | POOL_FLAG_UNINITIALIZED, 64, t), false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_NE(c.block, nullptr);
        EXPECT_EQ(reinterpret_cast<ULONG_PTR>(c.block) % 16, 0u);
        const auto* bytes = static_cast<const UCHAR*>(c.block);
        bool all_zero = std::all_of(bytes, bytes + 64, [](UCHAR b) { return b == 0; });
        EXPECT_EQ(all_zero, c.zeroed);
        ExFreePoolWithTag(c.block, t);
    }
    EXPECT_EQ(ExAllocatePool2(0, 16, t), nullptr) << "no pool kind";
    EXPECT_EQ(ExAllocatePool2(POOL_FLAG_PAGED | POOL_FLAG_NON_PAGED, 16, t), nullptr);
}

TEST(Pool, LeakReportListsOutstandingBlocksPerTagOldestFirst)
{
    const ULONG a = tag("Tpc1"), b = tag("Tpc2"), other = tag("Tpc3");
    void* a1 = ExAllocatePoolWithTag(NonPagedPoolNx, 16, a);
    void* b1 = ExAllocatePoolWithTag(NonPagedPoolNx, 24, b);
    void* a2 = ExAllocatePoolWithTag(NonPagedPoolNx, 32, a);
    void* o = ExAllocatePoolWithTag(NonPagedPoolNx, 8, other);
    const ULONG wanted[] = {a, b};
    LeakReport r = leak_report(wanted);
    ASSERT_EQ(r.tags.size(), 2u);
    EXPECT_EQ(r.tags[0].tag, a);
    EXPECT_EQ(r.tags[0].bytes, 48u);
    ASSERT_EQ(r.tags[0].blocks.size(), 2u);
    EXPECT_EQ(r.tags[0].blocks[0].address, a1);
    EXPECT_EQ(r.tags[0].blocks[1].address, a2);
    EXPECT_LT(r.tags[0].blocks[0].serial, r.tags[0].blocks[1].serial);
    EXPECT_EQ(r.tags[1].blocks[0].size, 24u);
    EXPECT_NE(r.text.find("2 block(s), 48 bytes under tag 'Tpc1' (0x31637054)"), std::string::npos)
        << r.text;
    EXPECT_EQ(r.text.find("Tpc3"), std::string::npos) << "other tags are left out";

    for (void* p : {a1, b1, a2, o}) {
        ExFreePool(p);
    }
    EXPECT_TRUE(leak_report(wanted).empty());
    EXPECT_TRUE(leak_report(wanted).text.empty());
}

TEST(Pool, TagTextShowsMemoryOrder)
{
    EXPECT_EQ(tag_text(0x53424853), "'SHBS' (0x53424853)");
    EXPECT_EQ(tag_text(0x4D564254), "'TBVM' (0x4D564254)");
    EXPECT_EQ(tag_text(0x00000141), "'A...' (0x00000141)");
}

// Which of a run of allocations fail under each rule ('x' failed, '.' succeeded).
std::string pattern(const std::vector<ULONG>& tags)
{
    std::string out;
    for (ULONG t : tags) {
        void* p = ExAllocatePoolWithTag(NonPagedPoolNx, 8, t);
        out += p ? '.' : 'x';
        if (p) {
            ExFreePoolWithTag(p, t);
        }
    }
    return out;
}

TEST(PoolFaults, Rules)
{
    const ULONG a = tag("Tpd1"), b = tag("Tpd2");
    struct Case {
        const char* name;
        std::vector<PoolFault> rules;
        std::vector<ULONG> tags;
        std::string expected;
    };
    const std::vector<Case> cases = {
        {"none", {}, {a, b, a}, "..."},
        {"n-th overall", {fail_nth(3)}, {a, a, b, a, a}, "..x.."},
        {"n-th of a tag", {fail_nth(2, a)}, {a, b, b, a, a}, "...x."},
        {"first", {fail_nth(1)}, {b, a}, "x."},
        {"every of a tag", {fail_every(b)}, {a, b, a, b}, ".x.x"},
        {"two rules", {fail_nth(1, a), fail_nth(2, b)}, {a, b, b, a}, "x.x."},
        {"always", {fail_random(9, 1.0)}, {a, b}, "xx"},
        {"never", {fail_random(9, 0.0)}, {a, b}, ".."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        for (const PoolFault& r : c.rules) {
            add_pool_fault(r);
        }
        EXPECT_EQ(pattern(c.tags), c.expected);
        clear_pool_faults();
        EXPECT_EQ(pattern(c.tags), std::string(c.tags.size(), '.')) << "cleared";
    }
}

TEST(PoolFaults, RandomReplaysFromItsSeed)
{
    const ULONG t = tag("Tpe1");
    const std::vector<ULONG> run(200, t);
    auto with = [&](std::uint64_t seed) {
        add_pool_fault(fail_random(seed, 0.25, t));
        std::string p = pattern(run);
        clear_pool_faults();
        return p;
    };
    std::string first = with(77);
    EXPECT_EQ(with(77), first);
    EXPECT_NE(with(78), first);
    auto failures = std::count(first.begin(), first.end(), 'x');
    EXPECT_GT(failures, 25);
    EXPECT_LT(failures, 75);
}

TEST(PoolFaults, FailuresAreCountedAndNoted)
{
    const ULONG t = tag("Tpf1");
    verifier::clear_recent();
    add_pool_fault(fail_every(t));
    EXPECT_EQ(ExAllocatePoolWithTag(NonPagedPoolNx, 12, t), nullptr);
    clear_pool_faults();
    EXPECT_EQ(pool_stats(t).failures, 1u);
    EXPECT_EQ(pool_stats(t).allocations, 0u);
    auto events = verifier::recent();
    ASSERT_FALSE(events.empty());
    EXPECT_NE(events.back().find("injected failure of 12 bytes, tag 'Tpf1'"), std::string::npos)
        << events.back();
}

} // namespace
} // namespace mvgps::kernel::test
