// Pool accounting, the leak report and the fault rules.
#include <wdm.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "host/kernel/kernel.h"
#include "host/verifier/verifier.h"

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

// Live blocks and bytes are counted per tag; the leak report lists what is still out under
// the tags asked for, oldest first.
TEST(Pool, AccountsPerTagAndReportsWhatIsStillOut)
{
    const ULONG a = tag("Tpa1"), b = tag("Tpa2"), other = tag("Tpa3");
    void* a1 = ExAllocatePoolWithTag(NonPagedPoolNx, 16, a);
    void* b1 = ExAllocatePoolWithTag(NonPagedPoolNx, 24, b);
    void* a2 = ExAllocatePoolWithTag(NonPagedPoolNx, 32, a);
    void* o = ExAllocatePoolWithTag(NonPagedPoolNx, 8, other);
    TagStats sa = pool_stats(a);
    EXPECT_EQ(sa.live_blocks, 2u);
    EXPECT_EQ(sa.live_bytes, 48u);
    EXPECT_EQ(sa.allocations, 2u);
    const ULONG wanted[] = {a, b};
    LeakReport r = leak_report(wanted);
    ASSERT_EQ(r.tags.size(), 2u);
    ASSERT_EQ(r.tags[0].blocks.size(), 2u);
    EXPECT_EQ(r.tags[0].blocks[0].address, a1);
    EXPECT_EQ(r.tags[0].blocks[1].address, a2);
    EXPECT_EQ(r.tags[1].blocks[0].size, 24u);
    EXPECT_NE(r.text.find("2 block(s), 48 bytes under tag 'Tpa1' (0x31617054)"), std::string::npos)
        << r.text;
    EXPECT_EQ(r.text.find("Tpa3"), std::string::npos) << "other tags are left out";

    ExFreePoolWithTag(a1, a);
    ExFreePoolWithTag(a2, 0); // tag 0: no check, as the driver frees its packets
    ExFreePool(b1);
    ExFreePool(o);
    sa = pool_stats(a);
    EXPECT_EQ(sa.live_blocks + sa.live_bytes, 0u);
    EXPECT_EQ(sa.frees, 2u);
    EXPECT_TRUE(leak_report(wanted).text.empty());
}

// Blocks are aligned for any record; only a zeroing allocation starts them at zero, so code
// that reads memory it never wrote sees garbage here too.
TEST(Pool, AlignmentAndContents)
{
    const ULONG t = tag("Tpb1");
    for (bool zeroing : {false, true}) {
        auto* p = static_cast<UCHAR*>(zeroing ? ExAllocatePool2(POOL_FLAG_NON_PAGED, 64, t)
                                              : ExAllocatePoolWithTag(NonPagedPoolNx, 64, t));
        ASSERT_NE(p, nullptr);
        EXPECT_EQ(reinterpret_cast<ULONG_PTR>(p) % 16, 0u);
        EXPECT_EQ(std::all_of(p, p + 64, [](UCHAR b) { return b == 0; }), zeroing);
        ExFreePoolWithTag(p, t);
    }
    EXPECT_EQ(ExAllocatePool2(0, 16, t), nullptr) << "no pool kind";
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
        {"n-th overall", {fail_nth(3)}, {a, a, b, a, a}, "..x.."},
        {"n-th of a tag", {fail_nth(2, a)}, {a, b, b, a, a}, "...x."},
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

// A seeded rule replays; each injected failure is counted apart from real allocations and
// noted for the bug check report.
TEST(PoolFaults, RandomReplaysFromItsSeedAndIsCounted)
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
    auto failures = std::count(first.begin(), first.end(), 'x');
    EXPECT_GT(failures, 25);
    EXPECT_LT(failures, 75);
    EXPECT_EQ(pool_stats(t).failures, std::uint64_t(failures));
    EXPECT_EQ(pool_stats(t).allocations, std::uint64_t(200 - failures));
    EXPECT_NE(verifier::recent().back().find("injected failure of 8 bytes, tag 'Tpe1'"),
              std::string::npos);
    EXPECT_EQ(with(77), first);
    EXPECT_NE(with(78), first);
}

} // namespace
} // namespace mvgps::kernel::test
