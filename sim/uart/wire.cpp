#include "sim/uart/wire.h"

#include <algorithm>
#include <cmath>

namespace mvgps::sim::uart
{

using sched::Nanos;

namespace
{

// A mismatched receiver frames characters at its own rate; a much faster one still finds at
// most a few start edges in each character it is sent.
double garble_ratio(const LineSettings& from, const LineSettings& to)
{
    return std::min(4.0, static_cast<double>(to.rate) / static_cast<double>(from.rate));
}

} // namespace

Wire::Wire(Nanos quantum)
    : sched_(sched::current()),
      quantum_(quantum), channels_{Channel("wire to a"), Channel("wire to b")}
{
    for (int i = 0; i < 2; ++i) {
        ends_[i].wire_ = this;
        ends_[i].index_ = i;
    }
    channels_[0].thread = sched_.spawn("wire b>a", [this] { run(0); });
    channels_[1].thread = sched_.spawn("wire a>b", [this] { run(1); });
}

Wire::~Wire()
{
    {
        sched::StateLock lock(sched_);
        stop_ = true;
        for (auto& c : channels_) {
            sched_.wake(c.wake);
        }
    }
    for (auto& c : channels_) {
        sched_.join(c.thread);
    }
}

void Wire::run(int to)
{
    Channel& c = channels_[to];
    for (;;) {
        {
            sched::StateLock lock(sched_);
            const Nanos next = next_arrival(c);
            const Nanos deadline =
                next == sched::kForever ? next : std::max(next, c.last_delivery + quantum_);
            sched_.wait(c.wake, to == 0 ? "wire b>a" : "wire a>b", deadline,
                        [&] { return stop_ || c.kicked; });
            c.kicked = false;
            if (stop_) {
                return;
            }
            deliver(to, sched_.now());
        }
        sched_.point("wire delivered");
    }
}

Nanos Wire::next_arrival(const Channel& c) const
{
    for (const Chunk& k : c.chunks) {
        if (k.delivered < k.bytes.size()) {
            return k.start + line_time(k.settings, k.delivered + 1);
        }
    }
    return sched::kForever;
}

void Wire::deliver(int to, Nanos now)
{
    Channel& c = channels_[to];
    const End& end = ends_[to];
    std::vector<std::uint8_t> out;
    Nanos last = 0;
    while (!c.chunks.empty()) {
        Chunk& k = c.chunks.front();
        const std::size_t arrived = std::min(k.bytes.size(), chars_in(k.settings, now - k.start));
        if (arrived > k.delivered) {
            pass(c, k.settings, end.settings_,
                 std::span(k.bytes).subspan(k.delivered, arrived - k.delivered), out);
            k.delivered = arrived;
            last = k.start + line_time(k.settings, arrived);
        }
        if (k.delivered < k.bytes.size()) {
            break;
        }
        c.chunks.pop_front();
    }
    if (last != 0) {
        c.last_delivery = now;
    }
    c.stats.delivered += out.size();
    if (!out.empty() && end.receiver_ != nullptr) {
        end.receiver_->on_bytes(out, last);
    }
}

void Wire::pass(Channel& c, const LineSettings& from, const LineSettings& to,
                std::span<const std::uint8_t> in, std::vector<std::uint8_t>& out)
{
    if (from != to) {
        c.garbage_carry += static_cast<double>(in.size()) * garble_ratio(from, to);
        // The epsilon keeps exact ratios (9600 / 115200 x 12) from losing a character.
        const auto n = static_cast<std::size_t>(std::floor(c.garbage_carry + 1e-9));
        c.garbage_carry -= static_cast<double>(n);
        c.stats.garbled += n;
        for (std::size_t i = 0; i < n; ++i) {
            out.push_back(c.random.byte());
        }
        return;
    }
    const Impairments& imp = c.impairments;
    for (std::uint8_t b : in) {
        if (c.random.chance(imp.drop)) {
            ++c.stats.dropped;
            continue;
        }
        if (c.random.chance(imp.flip)) {
            b ^= static_cast<std::uint8_t>(1u << c.random.between(0, 7));
            ++c.stats.flipped;
        }
        out.push_back(b);
        if (c.random.chance(imp.noise)) {
            out.push_back(c.random.byte());
            ++c.stats.noise;
        }
    }
}

void Wire::End::attach(LineReceiver* receiver)
{
    receiver_ = receiver;
}

bool Wire::End::configure(const LineSettings& s)
{
    if (s.rate == 0) {
        return false;
    }
    settings_ = s;
    return true;
}

LineSettings Wire::End::settings() const
{
    return settings_;
}

Nanos Wire::End::send_after(Nanos idle, std::span<const std::uint8_t> bytes)
{
    Channel& c = wire_->channels_[1 - index_];
    const Nanos now = wire_->sched_.now();
    if (bytes.empty()) {
        return std::max(now, c.busy_until);
    }
    Chunk k;
    k.start = std::max(now, c.busy_until) + idle;
    k.settings = settings_;
    k.bytes.assign(bytes.begin(), bytes.end());
    c.busy_until = k.start + line_time(settings_, bytes.size());
    c.stats.sent += bytes.size();
    const bool was_idle = wire_->next_arrival(c) == sched::kForever;
    c.chunks.push_back(std::move(k));
    if (was_idle) {
        c.kicked = true;
        wire_->sched_.wake(c.wake);
    }
    return c.busy_until;
}

std::size_t Wire::End::discard_unsent()
{
    Channel& c = wire_->channels_[1 - index_];
    const Nanos now = wire_->sched_.now();
    std::size_t dropped = 0;
    while (!c.chunks.empty()) {
        Chunk& k = c.chunks.back();
        // Characters whose start bit has not gone out yet.
        const std::size_t started =
            now <= k.start ? 0 : std::min(k.bytes.size(), chars_in(k.settings, now - k.start) + 1);
        const std::size_t keep = std::max(started, k.delivered);
        dropped += k.bytes.size() - keep;
        k.bytes.resize(keep);
        if (!k.bytes.empty()) {
            break;
        }
        c.chunks.pop_back();
    }
    c.busy_until = c.chunks.empty()
                       ? std::min(c.busy_until, now)
                       : c.chunks.back().start +
                             line_time(c.chunks.back().settings, c.chunks.back().bytes.size());
    c.stats.sent -= dropped;
    return dropped;
}

void Wire::End::discard_received()
{
    Channel& c = wire_->channels_[index_];
    const Nanos now = wire_->sched_.now();
    for (Chunk& k : c.chunks) {
        k.delivered =
            std::max(k.delivered, std::min(k.bytes.size(), chars_in(k.settings, now - k.start)));
    }
    while (!c.chunks.empty() && c.chunks.front().delivered == c.chunks.front().bytes.size()) {
        c.chunks.pop_front();
    }
}

Nanos Wire::End::next_arrival() const
{
    return wire_->next_arrival(wire_->channels_[index_]);
}

void Wire::End::impair(const Impairments& i)
{
    sched::StateLock lock(wire_->sched_);
    wire_->channels_[index_].impairments = i;
}

WireStats Wire::End::stats() const
{
    sched::StateLock lock(wire_->sched_);
    return wire_->channels_[index_].stats;
}

} // namespace mvgps::sim::uart
