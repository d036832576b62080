#include "sim/uart/tty_line.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace mvgps::sim::uart
{

using sched::Nanos;

namespace
{

speed_t speed_of(std::uint32_t rate)
{
    switch (rate) {
    case 110:
        return B110;
    case 300:
        return B300;
    case 600:
        return B600;
    case 1200:
        return B1200;
    case 2400:
        return B2400;
    case 4800:
        return B4800;
    case 9600:
        return B9600;
    case 19200:
        return B19200;
    case 38400:
        return B38400;
    case 57600:
        return B57600;
    case 115200:
        return B115200;
    case 230400:
        return B230400;
    case 460800:
        return B460800;
    case 921600:
        return B921600;
    default:
        return B0;
    }
}

bool make_raw(int fd, std::string& error)
{
    termios t{};
    if (tcgetattr(fd, &t) != 0) {
        error = std::string("not a tty: ") + std::strerror(errno);
        return false;
    }
    cfmakeraw(&t);
    t.c_cflag |= CLOCAL | CREAD;
    t.c_cflag &= ~CRTSCTS;
    t.c_cc[VMIN] = 0;
    t.c_cc[VTIME] = 0;
    if (tcsetattr(fd, TCSANOW, &t) != 0) {
        error = std::string("cannot set raw mode: ") + std::strerror(errno);
        return false;
    }
    return true;
}

} // namespace

std::unique_ptr<TtyLine> TtyLine::open(const std::string& path, std::string& error)
{
    const int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        error = path + ": " + std::strerror(errno);
        return nullptr;
    }
    if (!make_raw(fd, error)) {
        ::close(fd);
        return nullptr;
    }
    return std::make_unique<TtyLine>(fd);
}

bool TtyLine::open_pair(std::unique_ptr<TtyLine>& a, std::unique_ptr<TtyLine>& b,
                        std::string& error)
{
    int master = -1;
    int slave = -1;
    if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) {
        error = std::string("openpty: ") + std::strerror(errno);
        return false;
    }
    for (int fd : {master, slave}) {
        fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
        fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
    if (!make_raw(slave, error)) {
        ::close(master);
        ::close(slave);
        return false;
    }
    a = std::make_unique<TtyLine>(master);
    b = std::make_unique<TtyLine>(slave);
    return true;
}

TtyLine::TtyLine(int fd) : sched_(sched::current()), fd_(fd)
{
    if (sched_.mode() != sched::Mode::Realtime) {
        std::fputs("mvgps: a tty runs on real time; use the realtime scheduler\n", stderr);
        std::abort();
    }
    if (pipe2(stop_pipe_, O_CLOEXEC | O_NONBLOCK) != 0) {
        std::perror("mvgps: pipe");
        std::abort();
    }
    reader_ = sched_.spawn("tty reader", [this] { read_loop(); });
    writer_ = sched_.spawn("tty writer", [this] { write_loop(); });
}

TtyLine::~TtyLine()
{
    {
        sched::StateLock lock(sched_);
        stop_ = true;
        sched_.wake(wake_);
    }
    const char wake = 1;
    [[maybe_unused]] const auto n = ::write(stop_pipe_[1], &wake, 1);
    sched_.join(reader_);
    sched_.join(writer_);
    ::close(stop_pipe_[0]);
    ::close(stop_pipe_[1]);
    ::close(fd_);
}

void TtyLine::read_loop()
{
    std::uint8_t buffer[4096];
    for (;;) {
        pollfd fds[2] = {{fd_, POLLIN, 0}, {stop_pipe_[0], POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0 && errno != EINTR) {
            return;
        }
        if (fds[1].revents != 0) {
            return;
        }
        if ((fds[0].revents & POLLIN) == 0) {
            if (fds[0].revents != 0) {
                // The other side is gone (a closed pty): wait for it or for the stop.
                pollfd stop = {stop_pipe_[0], POLLIN, 0};
                ::poll(&stop, 1, 10);
            }
            continue;
        }
        const ssize_t n = ::read(fd_, buffer, sizeof buffer);
        if (n <= 0) {
            continue;
        }
        {
            sched::StateLock lock(sched_);
            if (receiver_ != nullptr) {
                receiver_->on_bytes(std::span(buffer, static_cast<std::size_t>(n)), sched_.now());
            }
        }
        sched_.point("tty read");
    }
}

void TtyLine::write_loop()
{
    for (;;) {
        Pending next;
        {
            sched::StateLock lock(sched_);
            sched_.wait(wake_, "tty writer", sched::kForever,
                        [this] { return stop_ || !queue_.empty(); });
            if (stop_) {
                return;
            }
            next = std::move(queue_.front());
            queue_.pop_front();
        }
        if (next.not_before > sched_.now()) {
            sched_.sleep_until(next.not_before, "tty idle");
        }
        if (!write_all(next.bytes)) {
            return;
        }
    }
}

bool TtyLine::write_all(const std::vector<std::uint8_t>& bytes)
{
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd_, bytes.data() + done, bytes.size() - done);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EINTR) {
            return true; // a vanished peer drops the bytes, as a line would
        }
        pollfd fds[2] = {{fd_, POLLOUT, 0}, {stop_pipe_[0], POLLIN, 0}};
        ::poll(fds, 2, 100);
        if (fds[1].revents != 0) {
            return false;
        }
    }
    return true;
}

void TtyLine::attach(LineReceiver* receiver)
{
    receiver_ = receiver;
}

bool TtyLine::configure(const LineSettings& s)
{
    const speed_t speed = speed_of(s.rate);
    termios t{};
    if (speed == B0 || s.format.data_bits < 5 || s.format.data_bits > 8 ||
        tcgetattr(fd_, &t) != 0) {
        return false;
    }
    cfsetispeed(&t, speed);
    cfsetospeed(&t, speed);
    static constexpr tcflag_t kSizes[] = {CS5, CS6, CS7, CS8};
    t.c_cflag &= ~(CSIZE | PARENB | PARODD | CMSPAR | CSTOPB);
    t.c_cflag |= kSizes[s.format.data_bits - 5];
    switch (s.format.parity) {
    case 1:
        t.c_cflag |= PARENB | PARODD;
        break;
    case 2:
        t.c_cflag |= PARENB;
        break;
    case 3:
        t.c_cflag |= PARENB | PARODD | CMSPAR;
        break;
    case 4:
        t.c_cflag |= PARENB | CMSPAR;
        break;
    default:
        break;
    }
    if (s.format.stop_bits != 0) {
        t.c_cflag |= CSTOPB;
    }
    if (tcsetattr(fd_, TCSANOW, &t) != 0) {
        return false;
    }
    settings_ = s;
    return true;
}

LineSettings TtyLine::settings() const
{
    return settings_;
}

// The bytes leave at the line's nominal pace; the operating system knows better, but a
// serial port driver reports completion by the same reckoning.
Nanos TtyLine::send_after(Nanos idle, std::span<const std::uint8_t> bytes)
{
    const Nanos start = std::max(sched_.now(), tx_end_) + idle;
    tx_end_ = start + line_time(settings_, bytes.size());
    if (!bytes.empty()) {
        queue_.push_back({start, {bytes.begin(), bytes.end()}});
        sched_.wake(wake_);
    }
    return tx_end_;
}

std::size_t TtyLine::discard_unsent()
{
    std::size_t dropped = 0;
    for (const auto& p : queue_) {
        dropped += p.bytes.size();
    }
    queue_.clear();
    tcflush(fd_, TCOFLUSH);
    tx_end_ = std::min(tx_end_, sched_.now());
    return dropped;
}

void TtyLine::discard_received()
{
    tcflush(fd_, TCIFLUSH);
}

Nanos TtyLine::next_arrival() const
{
    return sched::kForever;
}

} // namespace mvgps::sim::uart
