#include "sim/uart/controller.h"

#include <algorithm>

namespace mvgps::sim::uart
{

using sched::Nanos;

namespace
{

constexpr ULONG kMaxUlong = 0xFFFFFFFF;

Nanos from_ms(std::uint64_t ms)
{
    // Anything beyond a few years is as good as no limit.
    return ms > 100'000'000'000ull ? sched::kForever : static_cast<Nanos>(ms) * sched::kMillisecond;
}

} // namespace

class SerialController::File final : public io::File
{
  public:
    explicit File(SerialController& c) : c_(c) {}
    ~File() override { c_.close(); }
    void dispatch(std::shared_ptr<io::Request> request) override { c_.dispatch(request); }

  private:
    SerialController& c_;
};

SerialController::SerialController(Line& line, ControllerConfig config)
    : sched_(sched::current()), line_(line), config_(std::move(config)), settings_(config_.line)
{
    {
        sched::StateLock lock(sched_);
        line_.attach(this);
        line_.configure(settings_);
    }
    thread_ = sched_.spawn("uart", [this] { run(); });
}

SerialController::~SerialController()
{
    {
        sched::StateLock lock(sched_);
        stop_ = true;
        line_.attach(nullptr);
        sched_.wake(wake_);
    }
    sched_.join(thread_);
}

NTSTATUS SerialController::open(const io::OpenParams&, std::unique_ptr<io::File>& file)
{
    sched::StateLock lock(sched_);
    if (open_) {
        return STATUS_SHARING_VIOLATION;
    }
    open_ = true;
    fifo_.clear();
    errors_ = 0;
    ++stats_.opens;
    file = std::make_unique<File>(*this);
    return STATUS_SUCCESS;
}

void SerialController::close()
{
    Completions done;
    {
        sched::StateLock lock(sched_);
        abort_reads(done);
        abort_writes(0, sched_.now(), done);
        fifo_.clear();
        open_ = false;
    }
    finish(done);
}

ControllerStats SerialController::stats() const
{
    sched::StateLock lock(sched_);
    return stats_;
}

LineSettings SerialController::settings() const
{
    sched::StateLock lock(sched_);
    return settings_;
}

std::size_t SerialController::fifo_level() const
{
    sched::StateLock lock(sched_);
    return fifo_.size();
}

void SerialController::run()
{
    for (;;) {
        Completions done;
        {
            sched::StateLock lock(sched_);
            sched_.wait(wake_, "uart", deadline(), [this] { return stop_ || kicked_; });
            kicked_ = false;
            if (stop_) {
                return;
            }
            done.swap(ready_);
            expire(sched_.now(), done);
        }
        finish(done);
    }
}

void SerialController::finish(Completions& done)
{
    for (auto& c : done) {
        c.req->clear_cancel_routine();
        c.req->complete(c.status, c.information);
    }
    done.clear();
}

// ---- Receiving ---------------------------------------------------------------------------

void SerialController::on_bytes(std::span<const std::uint8_t> bytes, Nanos arrival)
{
    if (!open_) {
        return;
    }
    stats_.received += bytes.size();
    while (!bytes.empty() && !reads_.empty()) {
        Read& r = reads_.front();
        const auto out = r.req->output();
        const std::size_t n = std::min(bytes.size(), out.size() - r.got);
        std::copy_n(bytes.begin(), n, out.begin() + static_cast<std::ptrdiff_t>(r.got));
        r.got += n;
        r.last_byte = arrival;
        bytes = bytes.subspan(n);
        if (!satisfied(r)) {
            break;
        }
        finish_read(STATUS_SUCCESS, ready_);
        serve_reads(sched_.now(), ready_);
    }
    const std::size_t room = config_.fifo_size - std::min(config_.fifo_size, fifo_.size());
    const std::size_t kept = std::min(room, bytes.size());
    fifo_.insert(fifo_.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(kept));
    if (kept < bytes.size()) {
        stats_.overflow += bytes.size() - kept;
        errors_ |= SERIAL_ERROR_QUEUEOVERRUN;
    }
    kicked_ = true;
    sched_.wake(wake_);
}

void SerialController::begin_read(Read& r, Nanos now) const
{
    const SERIAL_TIMEOUTS& t = timeouts_;
    const std::size_t length = r.req->output().size();
    r.started = true;
    if (t.ReadIntervalTimeout == kMaxUlong && t.ReadTotalTimeoutMultiplier == 0 &&
        t.ReadTotalTimeoutConstant == 0) {
        r.mode = ReadMode::Immediate;
        return;
    }
    if (t.ReadIntervalTimeout == kMaxUlong && t.ReadTotalTimeoutMultiplier == kMaxUlong) {
        r.mode = ReadMode::AnyByte;
        r.total_deadline = now + from_ms(t.ReadTotalTimeoutConstant);
        return;
    }
    if (t.ReadTotalTimeoutMultiplier != 0 || t.ReadTotalTimeoutConstant != 0) {
        const std::uint64_t total =
            std::uint64_t{t.ReadTotalTimeoutMultiplier} * length + t.ReadTotalTimeoutConstant;
        const Nanos span = from_ms(total);
        r.total_deadline = span == sched::kForever ? span : now + span;
    }
    if (t.ReadIntervalTimeout != 0 && t.ReadIntervalTimeout != kMaxUlong) {
        r.interval = from_ms(t.ReadIntervalTimeout);
    }
}

bool SerialController::satisfied(const Read& r) const
{
    return r.got == r.req->output().size() || r.mode == ReadMode::Immediate ||
           (r.mode == ReadMode::AnyByte && r.got > 0);
}

// The interval timer runs from the last byte; it does not fire while a byte that arrived in
// time is still being handed over by the line.
Nanos SerialController::interval_deadline(const Read& r) const
{
    if (r.interval == 0 || r.got == 0) {
        return sched::kForever;
    }
    const Nanos d = r.last_byte + r.interval;
    return line_.next_arrival() <= d ? sched::kForever : d;
}

void SerialController::serve_reads(Nanos now, Completions& done)
{
    while (!reads_.empty()) {
        Read& r = reads_.front();
        if (!r.started) {
            begin_read(r, now);
        }
        const auto out = r.req->output();
        const std::size_t n = std::min(fifo_.size(), out.size() - r.got);
        if (n > 0) {
            std::copy_n(fifo_.begin(), n, out.begin() + static_cast<std::ptrdiff_t>(r.got));
            fifo_.erase(fifo_.begin(), fifo_.begin() + static_cast<std::ptrdiff_t>(n));
            r.got += n;
            r.last_byte = now;
        }
        if (!satisfied(r)) {
            return;
        }
        finish_read(STATUS_SUCCESS, done);
    }
}

void SerialController::finish_read(NTSTATUS status, Completions& done)
{
    Read r = std::move(reads_.front());
    reads_.pop_front();
    ++stats_.reads;
    stats_.read_timeouts += status == STATUS_TIMEOUT;
    stats_.cancelled += status == STATUS_CANCELLED;
    done.push_back({std::move(r.req), status, r.got});
}

void SerialController::abort_reads(Completions& done)
{
    while (!reads_.empty()) {
        finish_read(STATUS_CANCELLED, done);
    }
}

Nanos SerialController::deadline() const
{
    Nanos d = writes_.empty() ? sched::kForever : writes_.front().done;
    if (!reads_.empty() && reads_.front().started) {
        const Read& r = reads_.front();
        d = std::min({d, r.total_deadline, interval_deadline(r)});
    }
    return d;
}

void SerialController::expire(Nanos now, Completions& done)
{
    while (!reads_.empty() && reads_.front().started) {
        const Read& r = reads_.front();
        if (now < r.total_deadline && now < interval_deadline(r)) {
            break;
        }
        finish_read(STATUS_TIMEOUT, done);
        serve_reads(now, done);
    }
    while (!writes_.empty() && writes_.front().done <= now) {
        Write& w = writes_.front();
        done.push_back({std::move(w.req), w.status, w.sent});
        writes_.pop_front();
    }
}

// ---- Requests ----------------------------------------------------------------------------

void SerialController::dispatch(const Request& req)
{
    switch (req->major()) {
    case io::Major::Read:
        start_read(req);
        break;
    case io::Major::Write:
        start_write(req);
        break;
    case io::Major::DeviceControl: {
        Completions done;
        Completion self;
        {
            sched::StateLock lock(sched_);
            self = control(*req, done);
        }
        finish(done);
        req->complete(self.status, self.information);
        break;
    }
    }
}

void SerialController::start_read(const Request& req)
{
    Completions done;
    {
        sched::StateLock lock(sched_);
        reads_.push_back({req});
        serve_reads(sched_.now(), done);
        kicked_ = true;
        sched_.wake(wake_);
    }
    finish(done);
    arm_cancel(req);
}

void SerialController::start_write(const Request& req)
{
    const auto data = req->input();
    if (data.empty()) {
        req->complete(STATUS_SUCCESS, 0);
        return;
    }
    {
        sched::StateLock lock(sched_);
        const Nanos now = sched_.now();
        Write w;
        w.req = req;
        w.length = data.size();
        w.settings = settings_;
        // Writes go out one after the other: this one starts when the previous one is over.
        w.start = std::max({now, tx_end_, last_done_});
        w.sent = data.size();
        Nanos limit = sched::kForever;
        const SERIAL_TIMEOUTS& t = timeouts_;
        if (t.WriteTotalTimeoutMultiplier != 0 || t.WriteTotalTimeoutConstant != 0) {
            limit = from_ms(std::uint64_t{t.WriteTotalTimeoutMultiplier} * data.size() +
                            t.WriteTotalTimeoutConstant);
            w.sent = std::min(w.sent, chars_in(settings_, limit));
        }
        const Nanos idle = w.start - std::max(now, tx_end_);
        w.done = w.start;
        if (w.sent > 0) {
            w.done = line_.send_after(idle, data.first(w.sent));
            tx_end_ = w.done;
        }
        if (w.sent < data.size()) {
            w.status = STATUS_TIMEOUT;
            w.done = w.start + limit;
        }
        last_done_ = w.done;
        stats_.written += w.sent;
        writes_.push_back(std::move(w));
        kicked_ = true;
        sched_.wake(wake_);
    }
    arm_cancel(req);
}

void SerialController::arm_cancel(const Request& req)
{
    if (!req->set_cancel_routine([this](io::Request& r) { cancel(r); })) {
        // Cancelled before the routine was in place (or already completed: then this finds
        // nothing to do).
        cancel(*req);
    }
}

void SerialController::cancel(io::Request& req)
{
    Completions done;
    {
        sched::StateLock lock(sched_);
        const Nanos now = sched_.now();
        for (std::size_t i = 0; i < reads_.size(); ++i) {
            if (reads_[i].req.get() != &req) {
                continue;
            }
            if (i == 0) {
                finish_read(STATUS_CANCELLED, done);
                serve_reads(now, done);
            } else {
                Read r = std::move(reads_[i]);
                reads_.erase(reads_.begin() + static_cast<std::ptrdiff_t>(i));
                ++stats_.cancelled;
                done.push_back({std::move(r.req), STATUS_CANCELLED, r.got});
            }
            break;
        }
        for (std::size_t i = 0; i < writes_.size(); ++i) {
            if (writes_[i].req.get() == &req) {
                abort_writes(i, now, done);
                break;
            }
        }
    }
    finish(done);
}

// Cancelling a write stops the transmitter: whatever has not started to leave is dropped, so
// every write still sending is cancelled with it, including those queued behind.
void SerialController::abort_writes(std::size_t from, Nanos now, Completions& done)
{
    for (std::size_t i = 0; i < from && i < writes_.size(); ++i) {
        const Write& w = writes_[i];
        if (w.start + line_time(w.settings, w.sent) > now) {
            from = i;
            break;
        }
    }
    if (from >= writes_.size()) {
        return;
    }
    line_.discard_unsent();
    for (std::size_t i = from; i < writes_.size(); ++i) {
        Write& w = writes_[i];
        const std::size_t out =
            now <= w.start ? 0 : std::min(w.sent, chars_in(w.settings, now - w.start));
        ++stats_.cancelled;
        done.push_back({std::move(w.req), STATUS_CANCELLED, out});
    }
    writes_.erase(writes_.begin() + static_cast<std::ptrdiff_t>(from), writes_.end());
    tx_end_ = std::min(tx_end_, now);
    last_done_ = writes_.empty() ? std::min(last_done_, now) : writes_.back().done;
}

} // namespace mvgps::sim::uart
