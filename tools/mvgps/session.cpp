#include "tools/mvgps/session.h"

#include <algorithm>

#include "control/control.h"
#include "host/kernel/kernel.h"
#include "tools/ctl/decode.h"
#include "tools/mvgps/fix.h"

namespace mvgps::tool
{

namespace
{

// Reads kept waiting in the driver: a frame that finds none is dropped, and an epoch of a
// busy receiver is a few dozen sentences in one burst.
constexpr std::size_t kReadDepth = 64;
// The read header and the longest frame the driver hands over.
constexpr std::size_t kReadLength = GPS_READ_HEADER_SIZE + 4096;
// A reading driver completes a UART read at least every 50 ms.
constexpr sched::Nanos kReadStall = 500 * sched::kMillisecond;

std::unique_ptr<sched::Scheduler> scheduler(const SessionOptions& o)
{
    return o.realtime ? sched::make_realtime() : sched::make_simulated(o.seed);
}

std::uint64_t pool_blocks()
{
    std::uint64_t n = 0;
    for (const kernel::TagLeak& tag : kernel::leak_report().tags) {
        n += tag.blocks.size();
    }
    return n;
}

} // namespace

Session::Session(const SessionOptions& options) : options_(options), install_(scheduler(options)) {}

Session::~Session()
{
    stop();
}

bool Session::start(std::string& error)
{
    sim::DeviceConfig config;
    config.image = options_.driver;
    config.rate = options_.rate;
    config.capture = options_.capture;
    config.tty = options_.tty;
    device_ = sim::HostedDevice::start(std::move(config), error);
    if (!device_) {
        return false;
    }
    if (!device_->stack().wait_for_children(1, now() + sched::kSecond)) {
        error = "the driver reported no child device";
        return false;
    }
    const GUID interface_class = MVGPS_DEVINTERFACE_GUID_INIT;
    const NTSTATUS status = pnp::ClientHandle::open_interface(interface_class, client_);
    if (!NT_SUCCESS(status)) {
        error = "the device interface did not open";
        return false;
    }
    top_up();
    count_from_here();
    return true;
}

std::uint64_t Session::stop()
{
    reads_.clear();
    client_.reset();
    device_.reset();
    return pool_blocks();
}

NTSTATUS Session::control(ULONG code, std::span<const std::uint8_t> input,
                          std::span<std::uint8_t> output, ULONG_PTR* information)
{
    return client_->ioctl(code, input, output, information);
}

void Session::top_up()
{
    while (reads_.size() < kReadDepth) {
        reads_.push_back(client_->ioctl_async(IOCTL_VC_GPS_START_READ, {}, kReadLength));
    }
}

void Session::pump(sched::Nanos deadline, const SentenceSink& sink)
{
    for (;;) {
        top_up();
        std::shared_ptr<pnp::PendingIo> read = reads_.front();
        if (!read->wait(deadline)) {
            return;
        }
        reads_.pop_front();
        take(*read, sink);
    }
}

void Session::take(const pnp::PendingIo& read, const SentenceSink& sink)
{
    if (read.status() == STATUS_CANCELLED) {
        counts_.cancelled++;
        return;
    }
    if (!NT_SUCCESS(read.status())) {
        counts_.failed++;
        return;
    }
    const auto output =
        read.output().first(std::min<std::size_t>(read.information(), read.output().size()));
    ctl::Frame frame;
    if (output.size() < GPS_READ_HEADER_SIZE ||
        !ctl::decode_frame(output.subspan(GPS_READ_HEADER_SIZE), frame)) {
        counts_.failed++;
        return;
    }
    counts_.frames++;
    const auto sentence = ctl::nmea_sentence(frame);
    if (!sentence) {
        return;
    }
    counts_.sentences++;
    if (const auto fix = parse_gga(*sentence); fix && fix->quality > 0) {
        counts_.fixes++;
    }
    sink(*sentence);
}

bool Session::revive_if_stalled()
{
    const std::uint64_t reads = device_->controller().stats().reads;
    if (reads != uart_reads_) {
        uart_reads_ = reads;
        uart_reads_since_ = now();
        return false;
    }
    if (now() - uart_reads_since_ < kReadStall) {
        return false;
    }
    device_->stack().sleep();
    device_->stack().wake();
    counts_.revivals++;
    uart_reads_since_ = now();
    return true;
}

void Session::count_from_here()
{
    counts_ = {};
    if (chip() != nullptr) {
        chip_nmea_at_start_ = chip()->stats().nmea_sent;
    }
}

std::optional<std::uint64_t> Session::losses()
{
    if (chip() == nullptr) {
        return std::nullopt;
    }
    const std::uint64_t sent = chip()->stats().nmea_sent - chip_nmea_at_start_;
    return sent > counts_.sentences ? sent - counts_.sentences : 0;
}

} // namespace mvgps::tool
