// The bug check report: what a developer reads when a rule is broken.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "sched/sched.h"
#include "verifier/verifier.h"

namespace mvgps::verifier
{
namespace
{

using testing::HasSubstr;

TEST(Report, NamesCodeRuleThreadSeedAndRecentEvents)
{
    sched::Install s(sched::make_simulated(4242));
    clear_recent();
    note("thread start StartFunc_GPS");
    std::string r = report(kBadPoolCaller, "pool freed twice", 7, 0x1000);
    EXPECT_THAT(r, HasSubstr("STOP: 0x000000C2 (0x0000000000000007, 0x0000000000001000, "
                             "0x0000000000000000, 0x0000000000000000)"));
    EXPECT_THAT(r, HasSubstr("BAD_POOL_CALLER"));
    EXPECT_THAT(r, HasSubstr("Rule:   pool freed twice"));
    EXPECT_THAT(r, HasSubstr("Thread: main"));
    EXPECT_THAT(r, HasSubstr("Seed:   4242 (replay with MVGPS_SEED=4242)"));
    EXPECT_THAT(r, HasSubstr("main: thread start StartFunc_GPS"));
}

TEST(Report, StopNames)
{
    struct Case {
        std::uint32_t code;
        const char* name;
    };
    const Case cases[] = {
        {0x0A, "IRQL_NOT_LESS_OR_EQUAL"},
        {0xC2, "BAD_POOL_CALLER"},
        {0xC4, "DRIVER_VERIFIER_DETECTED_VIOLATION"},
        {0x139, "KERNEL_SECURITY_CHECK_FAILURE"},
        {0x9F, "DRIVER_POWER_STATE_FAILURE"},
        {0x12345, "UNKNOWN_STOP_CODE"},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(stop_name(c.code), c.name);
    }
}

TEST(RecentEvents, KeepsTheLatestInOrder)
{
    clear_recent();
    for (int i = 0; i < 40; ++i) {
        note("event " + std::to_string(i));
    }
    auto events = recent();
    ASSERT_EQ(events.size(), kRecentEvents);
    EXPECT_EQ(events.front(), "event 8"); // no scheduler installed: no stamp
    EXPECT_EQ(events.back(), "event 39");
}

TEST(BugCheck, PrintsTheReportAndStops)
{
    EXPECT_DEATH(
        {
            sched::Install s(sched::make_simulated(99));
            note("lock acquired");
            bugcheck(kDriverVerifierViolation, "a rule", 1, 2, 3, 4);
        },
        "STOP: 0x000000C4.*DRIVER_VERIFIER_DETECTED_VIOLATION.*Rule:   a rule.*Thread: main.*"
        "Seed:   99.*lock acquired");
}

} // namespace
} // namespace mvgps::verifier
