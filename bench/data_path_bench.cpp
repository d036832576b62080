// The driver's data path in real time: the data-path test driver loaded in the host, its UART
// a simulated controller on an in-memory wire at 921600 bit/s.
//
//   latency     from the last byte of a frame on the wire to the client's completed read
//   round trip  of a command with acknowledgement, from the call to its return
//   throughput  frames delivered with 4 reads kept pending, against what the wire carries
//
// Each latency is printed as median and p99 and as the excess over its floor: the wire time
// of the bytes involved plus the 10 ms interval that ends every UART read. The machine is
// shared and noisy; compare the excess and the ratios, not single times.
#include <initguid.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "harness/data_path/data_path_ops.h"
#include "host/pnp/client.h"
#include "read/read.h"
#include "host/sched/sched.h"

namespace
{

using namespace mvgps;
using Bytes = std::vector<std::uint8_t>;
using sched::kMillisecond;

constexpr sched::Nanos kInterval = READ_INTERVAL_TIMEOUT_MS * kMillisecond;
const sim::LineSettings kLine{DATA_PATH_DEFAULT_RATE, {}};

double ms(sched::Nanos t)
{
    return static_cast<double>(t) / kMillisecond;
}

sched::Nanos now()
{
    return sched::current().now();
}

void sleep_until(sched::Nanos t)
{
    sched::current().sleep_until(t, "bench");
}

// Runs `body` on a scheduler thread (driver calls block in the scheduler) and waits for it.
void on_thread(const std::function<void()>& body)
{
    auto& s = sched::current();
    s.join(s.spawn("bench", body));
}

// One device with the data-path driver; the far end is the chip or a scripted peer.
class World
{
  public:
    explicit World(sim::DeviceConfig config)
    {
        std::string error;
        device_ = sim::HostedDevice::start(std::move(config), error);
        if (!device_) {
            std::printf("%s\n", error.c_str());
            return;
        }
        ops_ = harness::find_data_path_ops(DATA_PATH_DRIVER_PATH);
        ok_ = ops_ != nullptr && pnp::ClientHandle::open_interface(GUID_DEVINTERFACE_DATA_PATH,
                                                                   client_) == STATUS_SUCCESS;
    }

    ~World()
    {
        client_.reset();
        device_.reset();
    }

    bool ok() const { return ok_; }
    sim::testkit::Client& peer() { return *device_->peer(); }
    const DATA_PATH_OPS& ops() { return *ops_; }
    std::shared_ptr<pnp::PendingIo> read()
    {
        return client_->ioctl_async(IOCTL_DATA_PATH_READ, {}, 512);
    }

  private:
    std::unique_ptr<sim::HostedDevice> device_;
    std::unique_ptr<pnp::ClientHandle> client_;
    const DATA_PATH_OPS* ops_ = nullptr;
    bool ok_ = false;
};

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

void report(const char* what, std::vector<sched::Nanos> samples, sched::Nanos floor)
{
    std::sort(samples.begin(), samples.end());
    sched::Nanos median = samples[samples.size() / 2];
    sched::Nanos p99 = samples[samples.size() * 99 / 100];
    std::printf("%-12s n=%zu  floor %.3f ms  median %.3f ms (+%.3f)  p99 %.3f ms (+%.3f)\n", what,
                samples.size(), ms(floor), ms(median), ms(median - floor), ms(p99),
                ms(p99 - floor));
}

// A read is pending; one frame arrives alone on a quiet line.
void latency(int count)
{
    World w(harness::data_path_device(sim::FarEnd::Peer));
    if (!w.ok()) {
        std::printf("latency: the device did not come up\n");
        return;
    }
    std::vector<sched::Nanos> samples;
    sim::chip::Frame frame = numbered(0);
    sched::Nanos wire = sim::line_time(kLine, sim::chip::encode(frame).size());
    on_thread([&] {
        for (int i = 0; i < count; i++) {
            auto pending = w.read();
            sleep_until(now() + 2 * kMillisecond);
            sched::Nanos start = now();
            w.peer().send(frame);
            if (!pending->wait(start + sched::kSecond)) {
                std::printf("latency: a read did not complete\n");
                return;
            }
            samples.push_back(now() - (start + wire));
            // The next frame within the read thread's 50 ms, after this read has ended.
            sleep_until(start + 35 * kMillisecond);
        }
    });
    if (!samples.empty()) {
        report("latency", samples, kInterval);
    }
}

// xfer_hci_pkt_core with acknowledgement against a chip that answers at once.
void round_trip(int count)
{
    sim::DeviceConfig config = harness::data_path_device(sim::FarEnd::Chip);
    config.chip.nmea_on = false;
    config.chip.answer_delay_min = 0;
    config.chip.answer_delay_max = 0;
    World w(std::move(config));
    if (!w.ok()) {
        std::printf("round trip: the device did not come up\n");
        return;
    }
    // A 1-byte command goes out as a 16-byte padded buffer; its answer is a 14-byte frame.
    sched::Nanos floor = sim::line_time(kLine, 16) + sim::line_time(kLine, 14) + kInterval;
    std::vector<sched::Nanos> samples;
    UCHAR option = 1;
    on_thread([&] {
        FdoExtension* ext = w.ops().Extension();
        for (int i = 0; i < count; i++) {
            sched::Nanos start = now();
            if (w.ops().Xfer(ext, 1, 1, 0x22, 5, &option, 1, nullptr, 0) != 0) {
                std::printf("round trip: a command failed\n");
                return;
            }
            samples.push_back(now() - start);
            sleep_until(start + 30 * kMillisecond);
        }
    });
    if (!samples.empty()) {
        report("round trip", samples, floor);
    }
}

// Bursts of `burst` frames, each burst followed by a pause just over the read interval; the
// client keeps 4 reads pending, re-posting each as it completes.
void throughput(int burst, sched::Nanos duration)
{
    World w(harness::data_path_device(sim::FarEnd::Peer));
    if (!w.ok()) {
        std::printf("throughput: the device did not come up\n");
        return;
    }
    std::size_t frame_bytes = sim::chip::encode(numbered(0)).size();
    sched::Nanos burst_time = sim::line_time(kLine, frame_bytes * burst);
    sched::Nanos period = burst_time + kInterval + 2 * kMillisecond;
    std::uint32_t sent = 0;
    std::uint64_t delivered = 0;
    std::uint64_t out_of_order = 0;
    bool sending = true;

    auto& s = sched::current();
    sched::Thread* sender = s.spawn("bench sender", [&] {
        sched::Nanos start = now();
        for (sched::Nanos t = start; t < start + duration; t += period) {
            sleep_until(t);
            Bytes run;
            for (int i = 0; i < burst; i++) {
                Bytes f = sim::chip::encode(numbered(sent++));
                run.insert(run.end(), f.begin(), f.end());
            }
            w.peer().send_raw(run);
        }
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
    double seconds = static_cast<double>(duration) / sched::kSecond;
    double wire_rate = static_cast<double>(sched::kSecond) / sim::line_time(kLine, frame_bytes);
    std::printf("throughput   burst %d: offered %.0f frames/s, delivered %.0f frames/s "
                "(%.1f%% of the %.0f frames/s the wire carries), lost %llu of %u, "
                "out of order %llu\n",
                burst, sent / seconds, delivered / seconds, 100.0 * delivered / seconds / wire_rate,
                wire_rate, static_cast<unsigned long long>(sent - delivered), sent,
                static_cast<unsigned long long>(out_of_order));
}

} // namespace

int main()
{
    sched::Install install(sched::make_realtime());
    latency(200);
    round_trip(200);
    for (int burst : {1, 4, 8}) {
        throughput(burst, 5 * sched::kSecond);
    }
    return 0;
}
