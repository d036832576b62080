// The whole driver in real time: its image loaded by the host for a hosted device, its UART
// a simulated controller on the in-memory wire at 921600 bit/s, used through the control
// codes as GPS software uses it.
//
//   start-up    from the device's add to its child present (the chip's start-up included)
//   sleep, wake the device's D0 exit and D0 entry as the power manager asks for them
//   round trip  a command with acknowledgement, from the client's request to its completion
//   latency     from the last byte of a frame on the wire to the client's completed read
//   throughput  frames delivered with 4 reads kept pending, against what the wire carries
//
// The machine is shared and its times are noisy: each measure is printed as median and
// percentiles over its samples, and as ratios (to its floor, or to the round trip of the
// same run), which are what to compare between runs.
#include <algorithm>
#include <cstdio>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "control/control.h"
#include "host/kernel/kernel.h"
#include "host/pnp/client.h"
#include "host/sched/sched.h"
#include "read/read.h"
#include "sim/device/device.h"

namespace
{

using namespace mvgps;
using Bytes = std::vector<std::uint8_t>;
using sched::kMillisecond;
using sched::Nanos;

constexpr std::uint32_t kRate = 921600;
constexpr Nanos kInterval = READ_INTERVAL_TIMEOUT_MS * kMillisecond;
const sim::LineSettings kLine{kRate, {}};

double ms(Nanos t)
{
    return static_cast<double>(t) / kMillisecond;
}

Nanos now()
{
    return sched::current().now();
}

void sleep_until(Nanos t)
{
    sched::current().sleep_until(t, "bench");
}

struct Summary {
    Nanos median;
    Nanos p90;
    Nanos p99;
};

Summary summarise(std::vector<Nanos> samples)
{
    std::sort(samples.begin(), samples.end());
    auto at = [&](std::size_t percent) { return samples[samples.size() * percent / 100]; };
    return {at(50), at(90), at(99)};
}

void report(const char* what, const std::vector<Nanos>& samples, Nanos floor, const char* note = "")
{
    Summary s = summarise(samples);
    std::printf("%-12s n=%zu  floor %.2f ms  median %.2f ms (+%.2f)  p90 +%.2f  p99 +%.2f%s\n",
                what, samples.size(), ms(floor), ms(s.median), ms(s.median - floor),
                ms(s.p90 - floor), ms(s.p99 - floor), note);
}

// The read thread ends when a read times out with nothing, 50 ms after the line fell quiet
// by the driver's clock: on a loaded machine a stall that long ends it, and the measure after
// that point says so.
const char* read_thread_note()
{
    const bool ended =
        kernel::debug_output().find("OsSetSignal Threadread_FinishSignal") != std::string::npos;
    return ended ? "  (the read thread ended in a stall)" : "";
}

// A raw-command record: header, then the payload.
Bytes command(std::uint8_t pid, std::uint8_t sid, std::uint8_t argument)
{
    return {0xA5, 0, 8, pid, sid, 0, 1, argument};
}

// A scripted far end that answers every command at once, as a chip that accepts everything,
// and keeps the line alive with a status frame every 25 ms until told to stop.
class Responder
{
  public:
    explicit Responder(sim::testkit::Client& peer) : peer_(peer)
    {
        thread_ = sched::current().spawn("bench responder", [this] { run(); });
    }
    ~Responder()
    {
        stop();
        sched::current().join(thread_);
    }
    void stop()
    {
        sched::StateLock lock(sched::current());
        running_ = false;
    }

  private:
    bool running()
    {
        sched::StateLock lock(sched::current());
        return running_;
    }
    void run()
    {
        std::size_t answered = 0;
        for (std::uint32_t seq = 0; running(); seq++) {
            std::vector<sim::testkit::Received> got = peer_.received();
            for (; answered < got.size(); answered++) {
                const sim::chip::Frame& f = got[answered].frame;
                peer_.send(sim::chip::Frame{f.pid, f.sid, true, sim::testkit::le32(0)});
            }
            peer_.send(sim::chip::Frame{0x32, 0, true, sim::testkit::le32(seq)});
            sleep_until(now() + 25 * kMillisecond);
        }
    }

    sim::testkit::Client& peer_;
    sched::Thread* thread_ = nullptr;
    bool running_ = true;
};

// One hosted device with the driver; the far end is the chip or a scripted peer.
class World
{
  public:
    explicit World(sim::FarEnd far_end, bool chip_answers_at_once = false)
    {
        sim::DeviceConfig config;
        config.image = MVGPS_DRIVER_PATH;
        config.rate = kRate;
        config.far_end = far_end;
        if (chip_answers_at_once) {
            config.chip.answer_delay_min = 0;
            config.chip.answer_delay_max = 0;
        }
        kernel::clear_debug_output();
        device_ = std::make_unique<sim::HostedDevice>(std::move(config));
        if (far_end == sim::FarEnd::Peer) {
            responder_ = std::make_unique<Responder>(*device_->peer());
        }
    }
    ~World()
    {
        client_.reset();
        responder_.reset();
        device_.reset();
    }

    // Loads the image, then adds and starts the device: the time from the add until the
    // child is present, or 0 when it does not come up.
    Nanos bring_up()
    {
        pnp::DeviceStack& stack = device_->stack();
        if (!NT_SUCCESS(stack.load())) {
            return 0;
        }
        const Nanos start = now();
        if (!NT_SUCCESS(stack.add()) || !NT_SUCCESS(stack.start()) ||
            !stack.wait_for_children(1, now() + 5 * sched::kSecond)) {
            return 0;
        }
        const Nanos took = now() - start;
        return pnp::ClientHandle::open_device(stack.fdo(), client_) == STATUS_SUCCESS ? took : 0;
    }
    pnp::DeviceStack& stack() { return device_->stack(); }
    sim::testkit::Client& peer() { return *device_->peer(); }
    Responder& responder() { return *responder_; }
    pnp::ClientHandle& client() { return *client_; }
    std::shared_ptr<pnp::PendingIo> read()
    {
        return client_->ioctl_async(IOCTL_VC_GPS_START_READ, {}, 512);
    }

  private:
    std::unique_ptr<sim::HostedDevice> device_;
    std::unique_ptr<Responder> responder_;
    std::unique_ptr<pnp::ClientHandle> client_;
};

// Runs `body` on a scheduler thread (driver calls block in the scheduler) and waits for it.
void on_thread(const std::function<void()>& body)
{
    auto& s = sched::current();
    s.join(s.spawn("bench", body));
}

// The option switch with acknowledgement against a chip that answers at once (its NMEA output
// on, as the start-up leaves it): a 1-byte command goes out as a 16-byte padded buffer, its
// answer is a 14-byte frame.
std::vector<Nanos> round_trips(World& w, int count)
{
    std::vector<Nanos> samples;
    const Bytes record = command(0x22, 5, 1);
    for (int i = 0; i < count; i++) {
        Bytes answer(64);
        const Nanos start = now();
        if (w.client().ioctl(IOCTL_VC_GPS_SENDCMD_ACK, record, answer) != STATUS_SUCCESS) {
            std::printf("round trip: a command failed\n");
            break;
        }
        samples.push_back(now() - start);
        sleep_until(start + 30 * kMillisecond);
    }
    return samples;
}

// Start-up, then sleep and wake cycles and round trips on the same device, `runs` times.
void lifecycle(int runs, int cycles)
{
    std::vector<Nanos> startups, sleeps, wakes, trips;
    for (int r = 0; r < runs; r++) {
        World w(sim::FarEnd::Chip, true);
        Nanos startup = w.bring_up();
        if (startup == 0) {
            std::printf("start-up: the device did not come up\n");
            return;
        }
        startups.push_back(startup);
        on_thread([&] {
            for (int c = 0; c < cycles; c++) {
                Nanos t = now();
                if (!NT_SUCCESS(w.stack().sleep(PowerDeviceD3))) {
                    return;
                }
                sleeps.push_back(now() - t);
                t = now();
                if (!NT_SUCCESS(w.stack().wake())) {
                    return;
                }
                wakes.push_back(now() - t);
            }
            std::vector<Nanos> more = round_trips(w, cycles);
            trips.insert(trips.end(), more.begin(), more.end());
        });
    }
    if (trips.empty() || sleeps.empty()) {
        std::printf("lifecycle: no samples\n");
        return;
    }
    const Nanos floor = sim::line_time(kLine, 16) + sim::line_time(kLine, 14) + kInterval;
    report("round trip", trips, floor);
    const double trip = static_cast<double>(summarise(trips).median);
    for (auto [what, samples] : {std::pair{"start-up", &startups}, std::pair{"sleep", &sleeps},
                                 std::pair{"wake", &wakes}}) {
        Summary s = summarise(*samples);
        std::printf("%-12s n=%zu  median %.2f ms  p90 %.2f ms  = %.2f and %.2f round trips\n", what,
                    samples->size(), ms(s.median), ms(s.p90), s.median / trip, s.p90 / trip);
    }
}

// An NMEA-sized frame (72 bytes on the wire) carrying its sequence number.
sim::chip::Frame numbered(std::uint32_t n)
{
    char text[64];
    std::snprintf(text, sizeof text, "$GPTXT,01,01,02,bench frame %010u,padding*00\r\n", n);
    std::string s(text);
    return sim::chip::Frame{0x31, 0, true, Bytes(s.begin(), s.end())};
}

std::uint32_t sequence_of(std::span<const std::uint8_t> out, std::size_t information)
{
    std::string text(out.begin() + READ_COMPLETION_HEADER_SIZE + 7, out.begin() + information);
    std::size_t at = text.find("frame ");
    return at == std::string::npos ? UINT32_MAX
                                   : static_cast<std::uint32_t>(std::stoul(text.substr(at + 6)));
}

// A read is pending; one frame arrives alone on a quiet line. The frames themselves keep the
// read thread going once the responder has stopped.
void latency(int count)
{
    World w(sim::FarEnd::Peer);
    if (w.bring_up() == 0) {
        std::printf("latency: the device did not come up\n");
        return;
    }
    std::vector<Nanos> samples;
    const sim::chip::Frame frame = numbered(0);
    const Nanos wire = sim::line_time(kLine, sim::chip::encode(frame).size());
    on_thread([&] {
        w.responder().stop();
        for (int i = 0; i < count; i++) {
            auto pending = w.read();
            sleep_until(now() + 2 * kMillisecond);
            const Nanos start = now();
            w.peer().send(frame);
            if (!pending->wait(start + sched::kSecond)) {
                std::printf("latency: a read did not complete\n");
                return;
            }
            samples.push_back(now() - (start + wire));
            sleep_until(start + 35 * kMillisecond);
        }
    });
    const char* note = read_thread_note(); // before the line has been quiet for 50 ms
    if (!samples.empty()) {
        report("latency", samples, kInterval, note);
    }
}

// Bursts of `burst` frames, each followed by a pause just over the read interval; the client
// keeps 4 reads pending, re-posting each as it completes.
void throughput(int burst, Nanos duration)
{
    World w(sim::FarEnd::Peer);
    if (w.bring_up() == 0) {
        std::printf("throughput: the device did not come up\n");
        return;
    }
    const std::size_t frame_bytes = sim::chip::encode(numbered(0)).size();
    const Nanos period = sim::line_time(kLine, frame_bytes * burst) + kInterval + 2 * kMillisecond;
    std::uint32_t sent = 0;
    std::uint64_t delivered = 0, out_of_order = 0;
    bool sending = true;
    const char* note = "";

    auto& s = sched::current();
    w.responder().stop();
    sched::Thread* sender = s.spawn("bench sender", [&] {
        const Nanos start = now();
        for (Nanos t = start; t < start + duration; t += period) {
            sleep_until(t);
            Bytes run;
            for (int i = 0; i < burst; i++) {
                Bytes f = sim::chip::encode(numbered(sent++));
                run.insert(run.end(), f.begin(), f.end());
            }
            w.peer().send_raw(run);
        }
        note = read_thread_note();
        sleep_until(now() + 100 * kMillisecond);
        sched::StateLock lock(s);
        sending = false;
    });
    on_thread([&] {
        std::deque<std::shared_ptr<pnp::PendingIo>> reads;
        for (int i = 0; i < 4; i++) {
            reads.push_back(w.read());
        }
        std::uint32_t expected = 0;
        for (;;) {
            {
                sched::StateLock lock(s);
                if (!sending) {
                    break;
                }
            }
            if (!reads.front()->wait(now() + 20 * kMillisecond)) {
                continue;
            }
            auto done = reads.front();
            reads.pop_front();
            if (done->status() == STATUS_SUCCESS) {
                std::uint32_t n = sequence_of(done->output(), done->information());
                delivered++;
                out_of_order += n < expected;
                expected = n + 1;
            }
            reads.push_back(w.read());
        }
    });
    s.join(sender);
    const double seconds = static_cast<double>(duration) / sched::kSecond;
    const double wire_rate =
        static_cast<double>(sched::kSecond) / sim::line_time(kLine, frame_bytes);
    std::printf("throughput   burst %d: offered %.0f frames/s, delivered %.0f frames/s "
                "(%.1f%% of the %.0f frames/s the wire carries), lost %llu of %u, "
                "out of order %llu%s\n",
                burst, sent / seconds, delivered / seconds, 100.0 * delivered / seconds / wire_rate,
                wire_rate, static_cast<unsigned long long>(sent - delivered), sent,
                static_cast<unsigned long long>(out_of_order), note);
}

} // namespace

int main()
{
    sched::Install install(sched::make_realtime());
    lifecycle(10, 20);
    latency(200);
    for (int burst : {1, 4, 8}) {
        throughput(burst, 5 * sched::kSecond);
    }
    return 0;
}
