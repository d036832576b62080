// `mvgps demo` as the README's first command runs it: the whole driver against the simulated
// receiver, a cold start to a fix, the control codes, a clean unload; and a seed replays it.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "program.h"

namespace mvgps::test
{
namespace
{

nlohmann::json demo_summary(const std::string& seed)
{
    const Outcome o = run_program({"demo", "--seed", seed, "--seconds", "45", "--json"});
    EXPECT_EQ(o.status, 0) << o.out;
    nlohmann::json j = nlohmann::json::parse(o.out, nullptr, false);
    EXPECT_TRUE(j.is_object()) << o.out;
    return j;
}

TEST(Demo, ReachesAFixLosesNothingAndUnloadsClean)
{
    const nlohmann::json s = demo_summary("11");
    ASSERT_TRUE(s.is_object());
    EXPECT_EQ(s["scheduler"], "simulated");
    EXPECT_EQ(s["seed"], 11);
    EXPECT_EQ(s["pool_left"], 0);
    EXPECT_EQ(s["losses"], 0);
    EXPECT_EQ(s["failed_reads"], 0);
    EXPECT_EQ(s["cancelled_reads"], 1) << "the sleep code ends one waiting read";
    // The receiver model's cold start takes 35 s, give or take two.
    ASSERT_TRUE(s["first_fix_seconds"].is_number());
    EXPECT_NEAR(s["first_fix_seconds"].get<double>(), 35.0, 2.5);
    // Every epoch is a GGA; NMEA is off for three of the seconds after the fix.
    const auto fixes = s["fixes"].get<int>();
    EXPECT_GE(fixes, 45 - 38 - 3);
    EXPECT_GT(s["sentences"].get<int>(), 5 * 40);
    EXPECT_GT(s["frames"].get<int>(), s["sentences"].get<int>()) << "answers are frames too";
    EXPECT_LT(s["wall_seconds"].get<double>(), 30.0);
}

TEST(Demo, SameSeedSameRun)
{
    nlohmann::json a = demo_summary("5");
    nlohmann::json b = demo_summary("5");
    a.erase("wall_seconds");
    b.erase("wall_seconds");
    EXPECT_EQ(a, b);
}

TEST(Program, BadUsageExitsTwoAndHelpZero)
{
    const std::vector<std::pair<std::vector<std::string>, int>> cases = {
        {{}, 2},
        {{"fly"}, 2},
        {{"demo", "--bogus"}, 2},
        {{"demo", "--seconds", "0"}, 2},
        {{"demo", "--capture", "/nonexistent/capture.log"}, 2},
        {{"run", "--until-end"}, 2},
        {{"--help"}, 0},
        {{"demo", "--help"}, 0},
        {{"run", "--help"}, 0},
    };
    for (const auto& [args, status] : cases) {
        std::string line;
        for (const auto& a : args) {
            line += a + " ";
        }
        EXPECT_EQ(run_program(args).status, status) << line;
    }
}

} // namespace
} // namespace mvgps::test
