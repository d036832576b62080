// Test entry point: every failure names the seed that replays it (MVGPS_SEED=n).
#include <gtest/gtest.h>

#include <cstdio>

#include "host/sched/sched.h"

namespace
{

class SeedReporter : public testing::EmptyTestEventListener
{
    void OnTestPartResult(const testing::TestPartResult& result) override
    {
        if (result.failed() && mvgps::sched::installed() &&
            mvgps::sched::current().mode() == mvgps::sched::Mode::Simulated) {
            std::fprintf(stderr, "replay with MVGPS_SEED=%llu\n",
                         static_cast<unsigned long long>(mvgps::sched::current().seed()));
        }
    }
};

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    testing::UnitTest::GetInstance()->listeners().Append(new SeedReporter);
    return RUN_ALL_TESTS();
}
