#include "tools/mvgps/demo.h"

#include <chrono>
#include <iostream>

#include <fmt/format.h>

#include "control/control.h"
#include "sim/chip/protocol.h"
#include "tools/mvgps/fix.h"
#include "tools/mvgps/summary.h"

namespace mvgps::tool
{

namespace
{

namespace chip = sim::chip;

// When the control codes are tried, in seconds before the end of the run: the receiver has
// its fix by then when the run is long enough.
constexpr int kSleepAt = 14;
constexpr int kWakeAt = 12;
constexpr int kNmeaOffAt = 9;
constexpr int kNmeaOnAt = 6;

std::string command_name(const chip::Frame& f)
{
    switch (f.pid) {
    case chip::kPidNmea:
        return f.sid == 2 ? "NMEA off" : f.sid == 3 ? "NMEA on" : "NMEA start";
    case chip::kPidMemWrite:
        return "memory write";
    case chip::kPidMemRead:
        return "memory read";
    case chip::kPidRf:
        return "RF register";
    case chip::kPidReceiver:
        return f.sid == chip::kSidColdStart   ? "cold start"
               : f.sid == chip::kSidWarmStart ? "warm start"
                                              : "receiver sleep";
    case chip::kPidOption:
        return "output option";
    case chip::kPidBaud:
        return "baud rate";
    case chip::kPidAgps:
        return "assistance block";
    case chip::kPidGeofence:
        return "geofence";
    default:
        return "command";
    }
}

class Demo
{
  public:
    explicit Demo(const DemoOptions& o)
        : options_(o), out_(o.json ? std::cerr : std::cout), session_(o.session)
    {
    }
    int run();

  private:
    void say(const std::string& text)
    {
        out_ << fmt::format("[{:7.3f} s] {}\n", seconds(session_.now()), text) << std::flush;
    }
    static double seconds(sched::Nanos t) { return static_cast<double>(t) / sched::kSecond; }
    void show_start();
    void show_commands_heard(sched::Nanos since);
    void second(int at);
    void row(int at);
    void control_step(int left);
    void code(ULONG code, const char* what);
    std::uint32_t status_read(ULONG code, std::size_t length);

    const DemoOptions& options_;
    std::ostream& out_;
    Session session_;
    sched::Nanos cold_start_ = 0;
    std::optional<Fix> last_;
    std::optional<double> first_fix_;
    std::uint64_t sentences_at_row_ = 0;
};

void Demo::show_start()
{
    say("driver loaded: DriverEntry, device added, hardware prepared, device started");
    const auto children = session_.device().stack().children();
    const auto& init = children.front()->init();
    const std::u16string& id = init.hardware_ids.empty() ? u"" : init.hardware_ids.front();
    say("child device present: " + std::string(id.begin(), id.end()));
    show_commands_heard(0);
}

// The chip's side of the start-up sequence (and of the later codes): the commands it heard.
void Demo::show_commands_heard(sched::Nanos since)
{
    if (session_.chip() == nullptr) {
        return;
    }
    std::string line;
    for (const chip::TraceEntry& e : session_.chip()->trace()) {
        if (e.sent || e.time < since) {
            continue;
        }
        line += fmt::format("{}{} ({:02X}/{})", line.empty() ? "" : ", ", command_name(e.frame),
                            e.frame.pid, e.frame.sid);
    }
    if (!line.empty()) {
        say("the chip heard: " + line);
    }
}

void Demo::code(ULONG code, const char* what)
{
    const NTSTATUS status = session_.control(code);
    say(fmt::format("{} ({}): {}", gps_control_code_name(code), what,
                    status_text(static_cast<std::uint32_t>(status))));
}

std::uint32_t Demo::status_read(ULONG code, std::size_t length)
{
    std::uint8_t out[4] = {};
    ULONG_PTR information = 0;
    const NTSTATUS status = session_.control(code, {}, std::span(out, length), &information);
    const std::uint32_t value = out[0] | out[1] << 8 | out[2] << 16 | std::uint32_t{out[3]} << 24;
    say(fmt::format("{}: {}, {} byte(s) back, value {}", gps_control_code_name(code),
                    status_text(static_cast<std::uint32_t>(status)), information, value));
    return value;
}

void Demo::control_step(int left)
{
    switch (left) {
    case kSleepAt:
        code(IOCTL_VC_GPS_SLEEP, "cancels one waiting read");
        status_read(IOCTL_VC_GPS_GET_SLEEP_STATUS, 4);
        break;
    case kWakeAt: {
        const sched::Nanos since = session_.now();
        code(IOCTL_VC_GPS_WAKEUP, "runs the chip start-up again");
        show_commands_heard(since);
        status_read(IOCTL_VC_GPS_GET_SLEEP_STATUS, 4);
        status_read(IOCTL_VC_GPS_GET_DOWNLOAD_FLAG, 1);
        break;
    }
    case kNmeaOffAt:
        code(IOCTL_VC_GPS_DISABLE_NMEA, "the sentences stop");
        break;
    case kNmeaOnAt:
        code(IOCTL_VC_GPS_ENABLE_NMEA, "the sentences come back");
        break;
    default:
        break;
    }
}

void Demo::row(int at)
{
    const std::uint64_t fresh = session_.counts().sentences - sentences_at_row_;
    sentences_at_row_ = session_.counts().sentences;
    if (at % 20 == 1) {
        out_ << fmt::format("{:>6}  {:>8}  {:>10}  {:>10}  {:>6}  {:>4}  {:>4}  {:>9}\n", "t (s)",
                            "UTC", "latitude", "longitude", "alt m", "fix", "sats", "sentences");
    }
    if (fresh == 0 || !last_) {
        out_ << fmt::format("{:>6}  {:>8}  {:>10}  {:>10}  {:>6}  {:>4}  {:>4}  {:>9}\n", at, "-",
                            "-", "-", "-", "-", "-", 0);
    } else if (last_->quality == 0) {
        out_ << fmt::format("{:>6}  {:>8}  {:>10}  {:>10}  {:>6}  {:>4}  {:>4}  {:>9}\n", at,
                            last_->time, "-", "-", "-", "none", last_->satellites, fresh);
    } else {
        out_ << fmt::format("{:>6}  {:>8}  {:>10.5f}  {:>10.5f}  {:>6.1f}  {:>4}  {:>4}  {:>9}\n",
                            at, last_->time, last_->latitude, last_->longitude, last_->altitude,
                            last_->quality, last_->satellites, fresh);
    }
    out_ << std::flush;
}

// One second of device time: what the driver delivered, the table's row, and the control
// code due at this point.
void Demo::second(int at)
{
    std::optional<Fix> first;
    session_.pump(cold_start_ + at * sched::kSecond, [&](const std::string& sentence) {
        if (auto fix = parse_gga(sentence)) {
            last_ = fix;
            if (fix->quality > 0 && !first_fix_ && !first) {
                first = fix;
            }
        }
    });
    if (first) {
        first_fix_ = seconds(session_.now() - cold_start_);
        say(fmt::format("first fix, {:.1f} s after the cold start", *first_fix_));
    }
    row(at);
    if (session_.revive_if_stalled()) {
        say("the driver stopped reading the UART; device power-cycled to start it again");
    }
    control_step(options_.seconds - at);
}

int Demo::run()
{
    const auto wall_start = std::chrono::steady_clock::now();
    out_ << fmt::format("mvgps demo: {}, {}, {} bit/s\n",
                        options_.session.realtime
                            ? std::string("realtime scheduler")
                            : fmt::format("simulated scheduler, seed {}", options_.session.seed),
                        options_.session.capture.empty() ? "receiver model"
                                                         : options_.session.capture,
                        options_.session.rate);
    std::string error;
    if (!session_.start(error)) {
        std::cerr << "mvgps demo: " << error << "\n";
        return 1;
    }
    show_start();
    say("client: device interface open, reads waiting for frames");
    cold_start_ = session_.now();
    code(IOCTL_VC_GPS_STARTUP, "cold start");
    for (int at = 1; at <= options_.seconds; ++at) {
        second(at);
    }

    Summary s;
    s.command = options_.command;
    s.simulated = !options_.session.realtime;
    s.seed = options_.session.seed;
    s.source = options_.session.capture.empty() ? "receiver model" : options_.session.capture;
    s.rate = options_.session.rate;
    s.device_seconds = seconds(session_.now());
    s.counts = session_.counts();
    s.losses = session_.losses();
    s.first_fix_seconds = first_fix_;
    s.pool_left = session_.stop();
    say(fmt::format("stop: device removed, driver unloaded, {} pool blocks left", s.pool_left));
    s.wall_seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_start).count();
    if (options_.json) {
        std::cout << to_json(s).dump(2) << "\n";
    } else {
        print(s, std::cout);
    }
    return s.pool_left == 0 && s.counts.sentences > 0 ? 0 : 1;
}

} // namespace

int run_demo(const DemoOptions& options)
{
    Demo demo(options);
    return demo.run();
}

} // namespace mvgps::tool
