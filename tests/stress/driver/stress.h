// What every stress scenario shares: the whole driver through the system tests' fixture,
// random points drawn from the run's seed, requests that must each end with a status, and
// the check that the device still delivers what the chip sends.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "host/sched/random.h"
#include "tests/system/driver/driver_fixture.h"

namespace mvgps::test
{

// The chip's baud-rate command for this rate.
Bytes rate_record(std::uint32_t rate);

class StressTest : public DriverTest
{
  protected:
    StressTest();
    ~StressTest() override;

    // A time in [lo, hi] from the scenario's own stream of the seed.
    sched::Nanos pick(sched::Nanos lo, sched::Nanos hi);
    bool coin(double p = 0.5);
    // Runs `body` on a thread of its own after `delay`; joined by join_all().
    void after(sched::Nanos delay, std::function<void()> body);
    void join_all();

    // Sends a request that must end with a status by the end of the scenario.
    std::shared_ptr<pnp::PendingIo> send(pnp::ClientHandle& h, ULONG code, const Bytes& in = {},
                                         std::size_t out = 512);
    // Every request sent ends, with any status, within five seconds.
    void expect_all_ended();
    void wake_if_reading_ended();
    // Whether the read thread has ended on its own, with nothing started since.
    static bool reading_ended();
    // A read gets a frame the chip sent after it was posted, the client doing what the
    // design's limits ask of it first.
    void expect_fresh_read(pnp::ClientHandle& h);
    // The same through handles opened for the check, on the parent and on the child.
    void expect_working(bool child = true);

  private:
    std::optional<sched::Nanos> sent_at(std::span<const std::uint8_t> out, std::size_t information);

    // Clients on threads of their own draw and send at once in real time.
    std::mutex lock_;
    sched::Random random_;
    std::vector<sched::Thread*> threads_;
    std::vector<std::shared_ptr<pnp::PendingIo>> sent_;
};

} // namespace mvgps::test
