#include "sim/chip/chip.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace mvgps::sim::chip
{

using sched::Nanos;

std::string TraceEntry::text() const
{
    char head[40];
    std::snprintf(head, sizeof head, "%" PRId64 " %s ", time, sent ? "tx" : "rx");
    std::string s = head + describe(frame);
    if (verdict == FrameParser::Verdict::BadCrc) {
        s += " bad-crc";
    } else if (verdict == FrameParser::Verdict::BadTail) {
        s += " bad-tail";
    }
    return s;
}

Chip::Chip(Line& line, ChipConfig config)
    : sched_(sched::current()), line_(line), config_(std::move(config)), random_("chip"),
      protocol_(config_.order, config_.rates, config_.geofence_capacity),
      receiver_(config_.receiver, sched_.now()),
      epoch_period_(config_.capture ? config_.capture->period() : sched::kSecond),
      rate_(config_.rate)
{
    {
        sched::StateLock lock(sched_);
        const Nanos now = sched_.now();
        protocol_.state().nmea_on = config_.nmea_on;
        protocol_.set_geofence_status(config_.geofence_status);
        line_.attach(this);
        configure_rate(rate_);
        next_status_ = now + config_.status_period;
        next_epoch_ = now + epoch_period_;
    }
    thread_ = sched_.spawn("chip", [this] { run(); });
}

Chip::~Chip()
{
    {
        sched::StateLock lock(sched_);
        stop_ = true;
        line_.attach(nullptr);
        sched_.wake(wake_);
    }
    sched_.join(thread_);
}

void Chip::run()
{
    for (;;) {
        {
            sched::StateLock lock(sched_);
            sched_.wait(wake_, "chip", deadline(sched_.now()), [this] { return stop_ || kicked_; });
            kicked_ = false;
            if (stop_) {
                return;
            }
            tick(sched_.now());
        }
        sched_.point("chip");
    }
}

bool Chip::active(Nanos now) const
{
    return powered_ && now >= booting_until_ && now >= silent_until_ && !protocol_.state().asleep;
}

Nanos Chip::deadline(Nanos now) const
{
    Nanos d = sched::kForever;
    if (!pending_.empty()) {
        d = pending_.front().at;
    }
    if (!powered_) {
        return d;
    }
    if (parser_.partial()) {
        d = std::min(d, last_rx_ + config_.rx_gap);
    }
    if (now < booting_until_) {
        return std::min(d, booting_until_);
    }
    if (now < silent_until_) {
        return std::min(d, silent_until_);
    }
    if (active(now)) {
        d = std::min(d, next_status_);
        if (protocol_.state().nmea_on) {
            d = std::min(d, next_epoch_);
        }
    }
    return d;
}

void Chip::tick(Nanos now)
{
    if (parser_.partial() && now >= last_rx_ + config_.rx_gap) {
        // What is left of a frame after a pause in the line will not be completed.
        while (parser_.partial()) {
            parser_.resync([&](const Frame& f, FrameParser::Verdict v) { heard(f, v, now); });
        }
    }
    while (!pending_.empty() && pending_.front().at <= now) {
        Burst b = std::move(pending_.front());
        pending_.erase(pending_.begin());
        const bool mute = !powered_ || now < booting_until_ || now < silent_until_;
        if (!mute || b.bytes.empty()) {
            emit(std::move(b), now);
        }
    }
    if (!active(now)) {
        return;
    }
    if (now >= next_status_) {
        emit_status(now);
        const Nanos j = config_.status_jitter;
        next_status_ += config_.status_period + random_.between(-j, j);
        next_status_ = std::max(next_status_, now + 1);
    }
    if (now >= next_epoch_) {
        if (protocol_.state().nmea_on) {
            emit_epoch(now);
        }
        next_epoch_ = std::max(next_epoch_ + epoch_period_, now + 1);
    }
}

void Chip::on_bytes(std::span<const std::uint8_t> bytes, Nanos arrival)
{
    if (!powered_ || arrival < booting_until_ || arrival < silent_until_) {
        stats_.bytes_ignored += bytes.size();
        return;
    }
    last_rx_ = arrival;
    parser_.feed(bytes, [&](const Frame& f, FrameParser::Verdict v) { heard(f, v, arrival); });
    kicked_ = true;
    sched_.wake(wake_);
}

void Chip::heard(const Frame& f, FrameParser::Verdict v, Nanos time)
{
    record({time, false, f, v});
    if (v != FrameParser::Verdict::Good) {
        ++stats_.bad_frames_received;
        return;
    }
    ++stats_.frames_received;
    serve(f, time);
}

void Chip::serve(const Frame& command, Nanos arrival)
{
    ChipState& state = protocol_.state();
    if (state.asleep) {
        state.asleep = false;
        next_status_ = arrival;
    }
    const auto fault = faults_.take_command(command.pid, command.sid);
    if (fault && fault->kind == FaultKind::NoAck) {
        return;
    }
    Outcome o;
    if (fault && fault->kind == FaultKind::Reject) {
        o.err_status = fault->value;
    } else {
        o = protocol_.execute(command);
    }
    if (o.start) {
        receiver_.start(*o.start, arrival);
    }
    if (o.start == Start::Cold && config_.capture) {
        // A capture plays from its start again, as a receiver's output would after a restart.
        epoch_ = 0;
        next_epoch_ = arrival + epoch_period_;
    }
    if (o.assisted) {
        receiver_.assist(arrival);
    }
    Burst b;
    // Commands are answered in the order they came, so a rate switch follows the last one.
    b.at = std::max(answer_at_,
                    arrival + random_.between(config_.answer_delay_min, config_.answer_delay_max));
    answer_at_ = b.at;
    if (fault && fault->kind == FaultKind::LateAck) {
        b.at += fault->delay;
    }
    const Frame ack = protocol_.acknowledgement(command, o);
    add_frame(b, ack);
    if (fault && fault->kind == FaultKind::DuplicateAck) {
        add_frame(b, ack);
    }
    b.switch_rate = o.new_rate;
    b.sleep_after = o.sleep;
    schedule(std::move(b));
}

void Chip::add_frame(Burst& b, Frame f)
{
    const FrameDamage d = faults_.take_frame(b.kind);
    for (std::size_t i = 0; i < d.garbage; ++i) {
        b.bytes.push_back(random_.byte());
    }
    b.bytes.insert(b.bytes.end(), d.padding, kPad);
    auto bytes = encode(f);
    auto verdict = FrameParser::Verdict::Good;
    if (d.crc) {
        bytes[bytes.size() - 2] ^= 0xFF;
        verdict = FrameParser::Verdict::BadCrc;
    }
    if (d.tail) {
        bytes.back() = 0x5A;
        verdict = FrameParser::Verdict::BadTail;
    }
    b.bytes.insert(b.bytes.end(), bytes.begin(), bytes.end());
    b.frames.push_back({0, true, std::move(f), verdict});
}

void Chip::schedule(Burst b)
{
    auto at = std::upper_bound(pending_.begin(), pending_.end(), b.at,
                               [](Nanos t, const Burst& x) { return t < x.at; });
    pending_.insert(at, std::move(b));
}

void Chip::emit(Burst b, Nanos now)
{
    Nanos done = now;
    if (!b.bytes.empty()) {
        const auto pause = b.bytes.size() > 1 ? faults_.take_split(b.kind) : std::nullopt;
        if (pause) {
            // The line goes quiet in the middle of the burst; nothing else gets in between.
            const auto cut = static_cast<std::size_t>(
                random_.between(1, static_cast<std::int64_t>(b.bytes.size()) - 1));
            line_.send(std::span(b.bytes).first(cut));
            done = line_.send_after(*pause, std::span(b.bytes).subspan(cut));
        } else {
            done = line_.send(b.bytes);
        }
        tx_done_ = std::max(tx_done_, done);
        for (auto& f : b.frames) {
            f.time = now;
            record(std::move(f));
        }
        const auto n = b.frames.size();
        stats_.frames_sent += n;
        switch (b.kind) {
        case Output::Nmea:
            stats_.nmea_sent += n;
            break;
        case Output::Status:
            stats_.status_sent += n;
            break;
        default:
            stats_.answers_sent += n;
            break;
        }
    }
    if (!b.switch_rate && !b.sleep_after) {
        return;
    }
    if (done > now) {
        // Follow-ups happen once the burst has left the chip.
        Burst after;
        after.at = done;
        after.switch_rate = b.switch_rate;
        after.sleep_after = b.sleep_after;
        schedule(std::move(after));
        return;
    }
    if (b.switch_rate) {
        configure_rate(*b.switch_rate);
    }
    if (b.sleep_after) {
        protocol_.state().asleep = true;
    }
}

// Periodic output does not queue up behind a line that is already far behind: the burst
// is skipped and counted.
bool Chip::backlogged(Nanos now)
{
    if (tx_done_ <= now + config_.max_backlog) {
        return false;
    }
    ++stats_.bursts_skipped;
    return true;
}

void Chip::emit_status(Nanos now)
{
    if (backlogged(now)) {
        return;
    }
    Burst b;
    b.at = now;
    b.kind = Output::Status;
    Frame f;
    f.pid = kPidStatus;
    protocol_.put_u32(f.payload, status_seq_++);
    add_frame(b, std::move(f));
    emit(std::move(b), now);
}

std::vector<std::string> Chip::next_sentences(Nanos now)
{
    if (!config_.capture) {
        return receiver_.epoch(now);
    }
    const auto& epochs = config_.capture->epochs();
    if (epochs.empty()) {
        return {};
    }
    const auto& sentences = epochs[epoch_].sentences;
    epoch_ = (epoch_ + 1) % epochs.size();
    return sentences;
}

void Chip::emit_epoch(Nanos now)
{
    if (backlogged(now)) {
        return;
    }
    const auto sentences = next_sentences(now);
    if (sentences.empty()) {
        return;
    }
    Burst b;
    b.at = now;
    b.kind = Output::Nmea;
    for (const auto& sentence : sentences) {
        Frame f;
        f.pid = kPidNmeaData;
        f.payload.assign(sentence.begin(), sentence.end());
        f.payload.resize(std::min(f.payload.size(), kMaxPayload - 2));
        f.payload.push_back('\r');
        f.payload.push_back('\n');
        add_frame(b, std::move(f));
    }
    ++stats_.epochs_sent;
    emit(std::move(b), now);
}

void Chip::record(TraceEntry e)
{
    if (config_.trace_limit == 0) {
        return;
    }
    trace_.push_back(std::move(e));
    if (trace_.size() > config_.trace_limit) {
        trace_.pop_front();
    }
}

void Chip::configure_rate(std::uint32_t rate)
{
    rate_ = rate;
    line_.configure({rate, LineFormat{}});
}

void Chip::boot(Nanos now)
{
    protocol_.reset();
    protocol_.state().nmea_on = config_.nmea_on;
    configure_rate(config_.rate);
    parser_.clear();
    pending_.clear();
    epoch_ = 0;
    status_seq_ = 0;
    booting_until_ = now + config_.boot_time;
    next_status_ = booting_until_;
    next_epoch_ = booting_until_ + epoch_period_;
    receiver_.power_on(booting_until_);
}

void Chip::inject(const Fault& f)
{
    {
        sched::StateLock lock(sched_);
        const Nanos now = sched_.now();
        switch (f.kind) {
        case FaultKind::Silence:
            silent_until_ = now + f.delay;
            break;
        case FaultKind::Reset:
            ++stats_.resets;
            boot(now);
            break;
        case FaultKind::RateMismatch:
            configure_rate(f.value);
            break;
        default:
            faults_.arm(f);
            break;
        }
        kicked_ = true;
        sched_.wake(wake_);
    }
    sched_.point("chip fault");
}

void Chip::set_power(bool on)
{
    {
        sched::StateLock lock(sched_);
        if (on && !powered_) {
            powered_ = true;
            boot(sched_.now());
        } else if (!on) {
            powered_ = false;
            pending_.clear();
            parser_.clear();
        }
        kicked_ = true;
        sched_.wake(wake_);
    }
    sched_.point("chip power");
}

void Chip::set_geofence_status(std::optional<std::uint8_t> status)
{
    sched::StateLock lock(sched_);
    protocol_.set_geofence_status(status);
}

ChipStats Chip::stats() const
{
    sched::StateLock lock(sched_);
    ChipStats s = stats_;
    s.parser = parser_.counters();
    return s;
}

ChipState Chip::state() const
{
    sched::StateLock lock(sched_);
    return protocol_.state();
}

std::vector<TraceEntry> Chip::trace() const
{
    sched::StateLock lock(sched_);
    return {trace_.begin(), trace_.end()};
}

std::uint32_t Chip::rate() const
{
    sched::StateLock lock(sched_);
    return rate_;
}

std::vector<std::uint8_t> Chip::peek(std::uint32_t address, std::size_t count) const
{
    sched::StateLock lock(sched_);
    return protocol_.memory().read(address, count);
}

void Chip::poke(std::uint32_t address, std::span<const std::uint8_t> bytes)
{
    sched::StateLock lock(sched_);
    protocol_.memory().write(address, bytes);
}

void Chip::set_read_only(std::uint32_t address, std::uint32_t count)
{
    sched::StateLock lock(sched_);
    protocol_.memory().set_read_only(address, count);
}

} // namespace mvgps::sim::chip
