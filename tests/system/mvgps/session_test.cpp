// The program's device session in simulated time: a driver that stopped reading is brought
// back, and what the chip sent is accounted for.
#include <gtest/gtest.h>

#include "control/control.h"
#include "sim/chip/faults.h"
#include "tools/mvgps/session.h"

namespace mvgps::tool
{
namespace
{

using sched::kMillisecond;
using sched::kSecond;

TEST(Session, ReadingStoppedByASilentChipIsRevivedAndCounted)
{
    SessionOptions options;
    options.driver = MVGPS_DRIVER_PATH;
    options.seed = 3;
    Session session(options);
    std::string error;
    ASSERT_TRUE(session.start(error)) << error;
    const auto run_until = [&](sched::Nanos t) {
        while (session.now() < t) {
            session.pump(session.now() + 100 * kMillisecond, [](const std::string&) {});
            session.revive_if_stalled();
        }
    };
    run_until(session.now() + 2 * kSecond);
    EXPECT_EQ(session.counts().revivals, 0u) << "a chip that talks keeps the driver reading";
    const std::uint64_t before = session.counts().sentences;
    EXPECT_GT(before, 0u);

    // Longer than the driver's 50 ms read timeout: its read thread ends.
    session.chip()->inject(sim::chip::Fault::silence(200 * kMillisecond));
    run_until(session.now() + 3 * kSecond);
    EXPECT_EQ(session.counts().revivals, 1u);
    const std::uint64_t after = session.counts().sentences;
    run_until(session.now() + 2 * kSecond);
    EXPECT_GT(session.counts().sentences, after) << "sentences flow again after the power cycle";
    EXPECT_EQ(session.stop(), 0u) << "pool left after unload";
}

} // namespace
} // namespace mvgps::tool
