#include "tools/mvgps/run.h"

#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <chrono>
#include <iostream>

#include <fmt/format.h>

#include "control/control.h"
#include "tools/mvgps/control_server.h"
#include "tools/mvgps/pty.h"
#include "tools/mvgps/summary.h"

namespace mvgps::tool
{

namespace
{

constexpr sched::Nanos kStep = 100 * sched::kMillisecond;
// How long the last sentences of a capture may take to come through once the chip sent them.
constexpr sched::Nanos kDeliveryGrace = 2 * sched::kSecond;
// A reader counts as ready once its line settings have stayed the same this long: gpsd
// changes them every 0.2 s or so while it opens a device, later on a busy machine.
constexpr sched::Nanos kReaderSettle = 2 * sched::kSecond;

// SIGINT and SIGTERM, blocked in every thread and read from a descriptor, so no system call
// anywhere in the host is interrupted by them.
class Signals
{
  public:
    Signals()
    {
        sigemptyset(&set_);
        sigaddset(&set_, SIGINT);
        sigaddset(&set_, SIGTERM);
        pthread_sigmask(SIG_BLOCK, &set_, nullptr);
        fd_ = signalfd(-1, &set_, SFD_NONBLOCK | SFD_CLOEXEC);
    }
    ~Signals() { close(fd_); }
    bool raised()
    {
        signalfd_siginfo info{};
        if (read(fd_, &info, sizeof info) == sizeof info) {
            raised_ = true;
        }
        return raised_;
    }

  private:
    sigset_t set_{};
    int fd_ = -1;
    bool raised_ = false;
};

class Runner
{
  public:
    explicit Runner(const RunOptions& o)
        : options_(o), out_(o.json ? std::cerr : std::cout), session_(o.session)
    {
    }
    int run();

  private:
    bool open(std::string& error);
    bool hold_until_reader();
    bool wait_for_reader();
    void deliver(const std::string& sentence);
    // The capture has been delivered whole (true), or will not be (an error is set).
    bool capture_done(std::string& error);

    const RunOptions& options_;
    std::ostream& out_;
    Signals signals_;
    Session session_;
    std::unique_ptr<NmeaPty> pty_;
    std::unique_ptr<ControlServer> server_;
    std::size_t capture_sentences_ = 0;
    std::uint64_t written_ = 0;
    sched::Nanos all_sent_at_ = 0;
};

bool Runner::open(std::string& error)
{
    if (!options_.session.capture.empty()) {
        const auto capture = sim::chip::Capture::load(options_.session.capture);
        if (!capture) {
            error = options_.session.capture + ": no NMEA capture there";
            return false;
        }
        capture_sentences_ = capture->sentence_count();
    }
    pty_ = NmeaPty::open(options_.nmea_pty, error);
    if (!pty_) {
        return false;
    }
    server_ = ControlServer::start(options_.control, error);
    if (!server_ || !session_.start(error)) {
        return false;
    }
    out_ << "NMEA pty: " << pty_->path()
         << (options_.nmea_pty.empty() ? "" : " (link " + options_.nmea_pty + ")") << "\n"
         << "control socket: " << server_->path() << "\n"
         << std::flush;
    return true;
}

// Output stays off until a reader has the pty open, so it misses nothing. A capture starts
// from its beginning again with the cold start.
bool Runner::hold_until_reader()
{
    const bool capture = !options_.session.capture.empty();
    if (!capture && !options_.wait_reader) {
        return true;
    }
    session_.control(IOCTL_VC_GPS_DISABLE_NMEA);
    if (options_.wait_reader && !wait_for_reader()) {
        return false;
    }
    if (capture) {
        session_.control(IOCTL_VC_GPS_STARTUP);
    }
    session_.pump(session_.now() + kStep, [](const std::string&) {});
    session_.count_from_here();
    session_.control(IOCTL_VC_GPS_ENABLE_NMEA);
    return true;
}

bool Runner::wait_for_reader()
{
    out_ << "waiting for a reader on " << pty_->path() << "\n" << std::flush;
    std::string seen = pty_->settings();
    sched::Nanos steady_since = session_.now();
    while (!pty_->reader_present() || session_.now() - steady_since < kReaderSettle) {
        if (signals_.raised()) {
            return false;
        }
        session_.pump(session_.now() + kStep, [](const std::string&) {});
        if (std::string now = pty_->settings(); now != seen || !pty_->reader_present()) {
            seen = std::move(now);
            steady_since = session_.now();
        }
    }
    return true;
}

void Runner::deliver(const std::string& sentence)
{
    if (options_.until_end && written_ >= capture_sentences_) {
        return; // the capture's next loop
    }
    written_ += pty_->write(sentence);
}

bool Runner::capture_done(std::string& error)
{
    // What the chip sent while the driver was not reading is gone, though the count of
    // sentences written may still fill up from the capture's next loop.
    if (const std::uint64_t revivals = session_.counts().revivals; revivals > 0) {
        error = fmt::format("the capture was not delivered whole: the driver stopped reading {} "
                            "time(s)",
                            revivals);
        return false;
    }
    if (written_ >= capture_sentences_) {
        return true;
    }
    const std::uint64_t sent = session_.counts().sentences + session_.losses().value_or(0);
    if (sent < capture_sentences_) {
        return false;
    }
    if (all_sent_at_ == 0) {
        all_sent_at_ = session_.now();
    } else if (session_.now() - all_sent_at_ > kDeliveryGrace) {
        error = fmt::format("the capture was not delivered whole: {} of {} sentences", written_,
                            capture_sentences_);
    }
    return false;
}

int Runner::run()
{
    const auto wall_start = std::chrono::steady_clock::now();
    std::string error;
    if (!open(error)) {
        std::cerr << "mvgps run: " << error << "\n";
        return 1;
    }
    const sched::Nanos started = session_.now();
    bool ok = hold_until_reader();
    while (ok && !signals_.raised()) {
        session_.pump(session_.now() + kStep, [this](const std::string& s) { deliver(s); });
        if (session_.revive_if_stalled()) {
            out_ << "the driver stopped reading the UART; device power-cycled to start it again\n"
                 << std::flush;
        }
        if (options_.until_end && (capture_done(error) || !error.empty())) {
            break;
        }
    }
    server_.reset();

    Summary s;
    s.simulated = false;
    s.source = !options_.session.tty.empty()      ? options_.session.tty
               : options_.session.capture.empty() ? "receiver model"
                                                  : options_.session.capture;
    s.rate = options_.session.rate;
    s.device_seconds = static_cast<double>(session_.now() - started) / sched::kSecond;
    s.counts = session_.counts();
    s.losses = session_.losses();
    s.pool_left = session_.stop();
    s.wall_seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_start).count();
    if (options_.json) {
        nlohmann::json j = to_json(s);
        j["pty_written"] = written_;
        j["pty_dropped"] = pty_->dropped();
        std::cout << j.dump(2) << "\n";
    } else {
        print(s, std::cout);
        std::cout << fmt::format("  pty          {} sentences written, {} dropped\n", written_,
                                 pty_->dropped());
    }
    if (!error.empty()) {
        std::cerr << "mvgps run: " << error << "\n";
        return 1;
    }
    return s.pool_left == 0 ? 0 : 1;
}

} // namespace

int run_device(const RunOptions& options)
{
    Runner runner(options);
    return runner.run();
}

} // namespace mvgps::tool
