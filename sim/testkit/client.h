// The test side of a line: sends frames with the chip's codec and records what comes back,
// with arrival times. Waiting runs the simulation (the test thread blocks in the scheduler).
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <vector>

#include "host/sched/sched.h"
#include "sim/chip/frame.h"
#include "sim/support/line.h"

namespace mvgps::sim::testkit
{

using Bytes = std::vector<std::uint8_t>;

template <class T>
Bytes bytes_of(const T& v)
{
    Bytes b(sizeof v);
    std::memcpy(b.data(), &v, sizeof v);
    return b;
}

struct Received {
    chip::Frame frame;
    sched::Nanos arrival = 0;
    chip::FrameParser::Verdict verdict = chip::FrameParser::Verdict::Good;
};

class Client final : public LineReceiver
{
  public:
    Client(Line& line, std::uint32_t rate) : sched_(sched::current()), line_(line)
    {
        sched::StateLock lock(sched_);
        line_.attach(this);
        line_.configure({rate, LineFormat{}});
    }
    ~Client()
    {
        sched::StateLock lock(sched_);
        line_.attach(nullptr);
    }

    void set_rate(std::uint32_t rate)
    {
        sched::StateLock lock(sched_);
        line_.configure({rate, LineFormat{}});
    }
    void send_raw(std::span<const std::uint8_t> bytes)
    {
        {
            sched::StateLock lock(sched_);
            line_.send(bytes);
        }
        sched_.point("client sent");
    }
    void send(const chip::Frame& f) { send_raw(chip::encode(f)); }
    // Sends a command and waits for its acknowledgement (same pid and sid).
    std::optional<Received> command(std::uint8_t pid, std::uint8_t sid, Bytes payload = {},
                                    sched::Nanos timeout = 100 * sched::kMillisecond)
    {
        const std::size_t from = received().size();
        send({pid, sid, true, std::move(payload)});
        return wait_for(from, pid, sid, timeout);
    }
    // The first good frame with this pid and sid that arrives from now on.
    std::optional<Received> await(std::uint8_t pid, std::uint8_t sid, sched::Nanos timeout)
    {
        return wait_for(received().size(), pid, sid, timeout);
    }

    std::vector<Received> received() const
    {
        sched::StateLock lock(sched_);
        return received_;
    }
    Bytes raw() const
    {
        sched::StateLock lock(sched_);
        return raw_;
    }
    void clear()
    {
        sched::StateLock lock(sched_);
        received_.clear();
        raw_.clear();
    }

    void on_bytes(std::span<const std::uint8_t> bytes, sched::Nanos arrival) override
    {
        raw_.insert(raw_.end(), bytes.begin(), bytes.end());
        parser_.feed(bytes, [&](const chip::Frame& f, chip::FrameParser::Verdict v) {
            received_.push_back({f, arrival, v});
        });
        sched_.wake(wake_);
    }

  private:
    std::optional<Received> wait_for(std::size_t from, std::uint8_t pid, std::uint8_t sid,
                                     sched::Nanos timeout)
    {
        std::optional<Received> out;
        sched::StateLock lock(sched_);
        sched_.wait(wake_, "client", sched_.now() + timeout, [&] {
            for (; from < received_.size() && !out; ++from) {
                const auto& r = received_[from];
                if (r.verdict == chip::FrameParser::Verdict::Good && r.frame.pid == pid &&
                    r.frame.sid == sid) {
                    out = r;
                }
            }
            return out.has_value();
        });
        return out;
    }

    sched::Scheduler& sched_;
    Line& line_;
    chip::FrameParser parser_;
    std::vector<Received> received_;
    Bytes raw_;
    sched::WaitList wake_;
};

inline Bytes le32(std::uint32_t v)
{
    return {static_cast<std::uint8_t>(v), static_cast<std::uint8_t>(v >> 8),
            static_cast<std::uint8_t>(v >> 16), static_cast<std::uint8_t>(v >> 24)};
}

inline Bytes cat(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const auto& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

// Lets the simulation run for `d` of its time.
inline void run_for(sched::Nanos d)
{
    auto& s = sched::current();
    s.sleep_until(s.now() + d, "test");
}

} // namespace mvgps::sim::testkit
