// One device as the program runs it: the scheduler, the driver loaded on a hosted device
// (the simulated chip, a capture, or a real serial port), and a client that keeps reads
// pending on the device interface and takes the frames the driver completes them with.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "host/pnp/client.h"
#include "host/sched/sched.h"
#include "sim/device/device.h"

namespace mvgps::tool
{

struct SessionOptions {
    std::string driver; // the driver's image
    std::string capture;
    std::string tty;
    std::uint32_t rate = 921600;
    bool realtime = false;
    std::uint64_t seed = 0; // simulated runs
};

struct Counts {
    std::uint64_t frames = 0; // completed reads that carried a frame
    std::uint64_t sentences = 0;
    std::uint64_t fixes = 0;     // GGA sentences with a fix
    std::uint64_t cancelled = 0; // reads the driver ended as cancelled
    std::uint64_t failed = 0;    // reads that ended with any other error
    std::uint64_t revivals = 0;  // power cycles that brought the driver's reading back
};

using SentenceSink = std::function<void(const std::string& sentence)>;

class Session
{
  public:
    explicit Session(const SessionOptions& options);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Brings the device up, waits for its child and opens the client; false with a reason.
    bool start(std::string& error);
    // Ends the client, removes the device and unloads the driver; the pool blocks left.
    std::uint64_t stop();

    sched::Scheduler& sched() { return install_.get(); }
    sched::Nanos now() { return sched().now(); }
    sim::HostedDevice& device() { return *device_; }
    // Null behind a real serial port.
    sim::chip::Chip* chip() { return device_ ? device_->chip() : nullptr; }

    // One control code from the client, waited for.
    NTSTATUS control(ULONG code, std::span<const std::uint8_t> input = {},
                     std::span<std::uint8_t> output = {}, ULONG_PTR* information = nullptr);
    // Takes what the driver delivers until `deadline`, keeping the reads topped up.
    void pump(sched::Nanos deadline, const SentenceSink& sink);
    // The driver stops reading for good when a UART read sees no byte within 50 ms: on a
    // loaded machine in real time the chip's next frame can come that late. When the UART has
    // completed no read for a while, the device goes to D3 and back to D0, which starts the
    // driver's threads and the chip start-up again. True when it did so.
    bool revive_if_stalled();
    // Counting starts again from here; losses are measured against the chip from here on.
    void count_from_here();
    const Counts& counts() const { return counts_; }
    // NMEA frames the chip sent since counting started and no read brought back.
    std::optional<std::uint64_t> losses();

  private:
    void top_up();
    void take(const pnp::PendingIo& read, const SentenceSink& sink);

    const SessionOptions options_;
    sched::Install install_;
    std::unique_ptr<sim::HostedDevice> device_;
    std::unique_ptr<pnp::ClientHandle> client_;
    std::deque<std::shared_ptr<pnp::PendingIo>> reads_;
    Counts counts_;
    std::uint64_t chip_nmea_at_start_ = 0;
    std::uint64_t uart_reads_ = 0;
    sched::Nanos uart_reads_since_ = 0;
};

} // namespace mvgps::tool
