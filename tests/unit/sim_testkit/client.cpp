#include "sim_testkit/client.h"

namespace mvgps::sim::testkit
{

Client::Client(Line& line, std::uint32_t rate) : sched_(sched::current()), line_(line)
{
    sched::StateLock lock(sched_);
    line_.attach(this);
    line_.configure({rate, LineFormat{}});
}

Client::~Client()
{
    sched::StateLock lock(sched_);
    line_.attach(nullptr);
}

void Client::set_rate(std::uint32_t rate)
{
    sched::StateLock lock(sched_);
    line_.configure({rate, LineFormat{}});
}

void Client::send(const chip::Frame& f)
{
    send_raw(chip::encode(f));
}

void Client::send_raw(std::span<const std::uint8_t> bytes)
{
    {
        sched::StateLock lock(sched_);
        line_.send(bytes);
    }
    sched_.point("client sent");
}

std::optional<Received> Client::command(std::uint8_t pid, std::uint8_t sid,
                                        std::vector<std::uint8_t> payload, sched::Nanos timeout)
{
    chip::Frame f;
    f.pid = pid;
    f.sid = sid;
    f.payload = std::move(payload);
    std::size_t from;
    {
        sched::StateLock lock(sched_);
        from = received_.size();
        line_.send(chip::encode(f));
    }
    return wait_for(from, pid, sid, sched_.now() + timeout);
}

std::optional<Received> Client::await(std::uint8_t pid, std::uint8_t sid, sched::Nanos timeout)
{
    std::size_t from;
    {
        sched::StateLock lock(sched_);
        from = received_.size();
    }
    return wait_for(from, pid, sid, sched_.now() + timeout);
}

std::optional<Received> Client::wait_for(std::size_t from, std::uint8_t pid, std::uint8_t sid,
                                         sched::Nanos deadline)
{
    std::optional<Received> out;
    sched::StateLock lock(sched_);
    sched_.wait(wake_, "client", deadline, [&] {
        for (; from < received_.size(); ++from) {
            const auto& r = received_[from];
            if (r.verdict == chip::FrameParser::Verdict::Good && r.frame.pid == pid &&
                r.frame.sid == sid) {
                out = r;
                return true;
            }
        }
        return false;
    });
    return out;
}

std::vector<Received> Client::received() const
{
    sched::StateLock lock(sched_);
    return received_;
}

std::vector<std::uint8_t> Client::raw() const
{
    sched::StateLock lock(sched_);
    return raw_;
}

void Client::clear()
{
    sched::StateLock lock(sched_);
    received_.clear();
    raw_.clear();
}

void Client::on_bytes(std::span<const std::uint8_t> bytes, sched::Nanos arrival)
{
    raw_.insert(raw_.end(), bytes.begin(), bytes.end());
    parser_.feed(bytes, [&](const chip::Frame& f, chip::FrameParser::Verdict v) {
        received_.push_back({f, arrival, v});
    });
    sched_.wake(wake_);
}

void run_for(sched::Nanos d)
{
    auto& s = sched::current();
    s.sleep_until(s.now() + d, "test");
}

std::vector<std::uint8_t> le32(std::uint32_t v)
{
    return {static_cast<std::uint8_t>(v), static_cast<std::uint8_t>(v >> 8),
            static_cast<std::uint8_t>(v >> 16), static_cast<std::uint8_t>(v >> 24)};
}

std::vector<std::uint8_t> le16(std::uint16_t v)
{
    return {static_cast<std::uint8_t>(v), static_cast<std::uint8_t>(v >> 8)};
}

std::uint32_t get_le32(std::span<const std::uint8_t> p)
{
    return p[0] | p[1] << 8 | p[2] << 16 | static_cast<std::uint32_t>(p[3]) << 24;
}

std::vector<std::uint8_t> cat(std::initializer_list<std::vector<std::uint8_t>> parts)
{
    std::vector<std::uint8_t> out;
    for (const auto& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

} // namespace mvgps::sim::testkit
