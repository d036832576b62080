#include "stress.h"

#include "control/control.h"

namespace mvgps::test
{

Bytes rate_record(std::uint32_t rate)
{
    return command(GPS_COMMAND_PID_BAUD_RATE, 0,
                   {static_cast<std::uint8_t>(rate), static_cast<std::uint8_t>(rate >> 8),
                    static_cast<std::uint8_t>(rate >> 16), static_cast<std::uint8_t>(rate >> 24)});
}

StressTest::StressTest() : random_("stress scenario") {}

StressTest::~StressTest()
{
    join_all();
}

sched::Nanos StressTest::pick(sched::Nanos lo, sched::Nanos hi)
{
    std::lock_guard<std::mutex> hold(lock_);
    return random_.between(lo, hi);
}

bool StressTest::coin(double p)
{
    std::lock_guard<std::mutex> hold(lock_);
    return random_.chance(p);
}

void StressTest::after(sched::Nanos delay, std::function<void()> body)
{
    const sched::Nanos at = sched::current().now() + delay;
    threads_.push_back(sched::current().spawn("scenario", [at, body = std::move(body)] {
        sched::current().sleep_until(at, "scenario point");
        body();
    }));
}

void StressTest::join_all()
{
    for (sched::Thread* t : threads_) {
        sched::current().join(t);
    }
    threads_.clear();
}

std::shared_ptr<pnp::PendingIo> StressTest::send(pnp::ClientHandle& h, ULONG code, const Bytes& in,
                                                 std::size_t out)
{
    std::shared_ptr<pnp::PendingIo> io = h.ioctl_async(code, in, out);
    std::lock_guard<std::mutex> hold(lock_);
    sent_.push_back(io);
    return io;
}

void StressTest::expect_all_ended()
{
    const sched::Nanos deadline = sched::current().now() + 5 * kSecond;
    for (const auto& io : sent_) {
        if (!io->wait(deadline)) {
            wake_if_reading_ended();
            (void)io->wait(sched::current().now() + 5 * kSecond);
        }
        EXPECT_TRUE(io->done()) << "a request was left pending";
    }
    sent_.clear();
}

// Once the read thread has ended, reads wait and answers go unread until the next wake, which
// is what a client does about it (docs/limits.md).
void StressTest::wake_if_reading_ended()
{
    if (stack().fdo() != nullptr && reading_ended()) {
        ASSERT_EQ(stack().sleep(PowerDeviceD3), STATUS_SUCCESS);
        ASSERT_EQ(stack().wake(), STATUS_SUCCESS);
    }
}

// What a client does to get reading going again (docs/limits.md): a wake when the read
// thread has ended, NMEA output asked for when a failed start-up left it off, and another
// read when the last one got a frame left over from before.
void StressTest::expect_fresh_read(pnp::ClientHandle& h)
{
    for (int attempt = 0; attempt < 4; attempt++) {
        wake_if_reading_ended();
        (void)h.ioctl(IOCTL_VC_GPS_ENABLE_NMEA, {}, {});
        // A burst takes some 20 ms to leave at 460800 bit/s and be read.
        const sched::Nanos posted = sched::current().now() - 100 * kMillisecond;
        auto read = h.ioctl_async(IOCTL_VC_GPS_START_READ, {}, 512);
        if (!read->wait(sched::current().now() + 2 * kSecond)) {
            read->cancel();
            ASSERT_TRUE(read->wait(sched::current().now() + kSecond));
            continue;
        }
        ASSERT_EQ(read->status(), STATUS_SUCCESS);
        const std::optional<sched::Nanos> sent = sent_at(read->output(), read->information());
        ASSERT_TRUE(sent.has_value()) << "the read got a frame the chip never sent";
        if (*sent >= posted) {
            return;
        }
    }
    ADD_FAILURE() << "no fresh frame for a read";
}

// When the chip last sent the frame a read got.
std::optional<sched::Nanos> StressTest::sent_at(std::span<const std::uint8_t> out,
                                                std::size_t information)
{
    if (information < 16u + 7u) {
        return std::nullopt;
    }
    const std::uint8_t* frame = out.data() + 16;
    // Sync, length, pid, sid, payload length, payload: the length counts from the pid.
    const std::size_t length = (frame[1] & 0x7F) << 8 | frame[2];
    if (length < 4 || 16u + 4u + length > information) {
        return std::nullopt;
    }
    const Bytes payload(frame + 7, frame + 3 + length);
    std::optional<sched::Nanos> sent;
    for (const sim::chip::TraceEntry& e : chip().trace()) {
        if (e.sent && e.frame.pid == frame[3] && e.frame.sid == frame[4] &&
            e.frame.payload == payload) {
            sent = e.time;
        }
    }
    return sent;
}

bool StressTest::reading_ended()
{
    const std::string all = log();
    const std::size_t last = all.rfind(")StartFunc_GPS ");
    return last != std::string::npos && all.compare(all.find_first_not_of(' ', last + 15), 35,
                                                    "OsSetSignal Threadread_FinishSignal") == 0;
}

void StressTest::expect_working(bool child)
{
    std::unique_ptr<pnp::ClientHandle> parent = open_parent();
    ASSERT_NE(parent, nullptr);
    expect_fresh_read(*parent);
    if (child) {
        std::unique_ptr<pnp::ClientHandle> handle = open_child();
        ASSERT_NE(handle, nullptr);
        expect_fresh_read(*handle);
    }
}

} // namespace mvgps::test
