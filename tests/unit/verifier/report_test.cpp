// The bug check report: what a developer reads when a rule is broken.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "host/sched/sched.h"
#include "host/verifier/verifier.h"

namespace mvgps::verifier
{
namespace
{

using testing::HasSubstr;

// The report ends with the latest recorded events, oldest first, each stamped with its
// thread's name.
TEST(Report, NamesCodeRuleThreadSeedAndRecentEvents)
{
    sched::Install s(sched::make_simulated(4242));
    clear_recent();
    note("thread start StartFunc_GPS");
    for (int i = 0; i < 40; ++i) {
        note("event " + std::to_string(i));
    }
    std::string r = report(kBadPoolCaller, "pool freed twice", 7, 0x1000);
    EXPECT_THAT(r, HasSubstr("STOP: 0x000000C2 (0x0000000000000007, 0x0000000000001000, "
                             "0x0000000000000000, 0x0000000000000000)"));
    EXPECT_THAT(r, HasSubstr("BAD_POOL_CALLER"));
    EXPECT_THAT(r, HasSubstr("Rule:   pool freed twice"));
    EXPECT_THAT(r, HasSubstr("Thread: main"));
    EXPECT_THAT(r, HasSubstr("Seed:   4242 (replay with MVGPS_SEED=4242)"));
    EXPECT_THAT(r, testing::ContainsRegex("main: event 8\n(.|\n)*main: event 39\n"));
    EXPECT_THAT(r, testing::Not(HasSubstr("event 7\n")));
    EXPECT_EQ(recent().size(), kRecentEvents);
    EXPECT_EQ(stop_name(0x12345), "UNKNOWN_STOP_CODE");
}

} // namespace
} // namespace mvgps::verifier
