#include "tools/mvgps/control_server.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <nlohmann/json.hpp>

#include "control/control.h"
#include "host/pnp/client.h"
#include "tools/ctl/hex.h"

namespace mvgps::tool
{

namespace
{

// Bounds on what one request may ask for: the largest record is a few kilobytes.
constexpr std::size_t kMaxLine = 1 << 20;
constexpr std::uint32_t kMaxOutput = 1 << 16;
// How often a waiting request looks whether the server is stopping.
constexpr sched::Nanos kStopCheck = 100 * sched::kMillisecond;

sockaddr_un address(const std::string& path, bool& fits)
{
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    fits = path.size() < sizeof a.sun_path;
    if (fits) {
        std::memcpy(a.sun_path, path.c_str(), path.size() + 1);
    }
    return a;
}

// Whether a live server answers at `path` (a socket left by a run that died does not).
bool in_use(const sockaddr_un& a)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool live = connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0;
    close(fd);
    return live;
}

bool send_line(int fd, const std::string& text)
{
    const std::string line = text + "\n";
    for (std::size_t done = 0; done < line.size();) {
        const ssize_t n = send(fd, line.data() + done, line.size() - done, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}

nlohmann::json error(const std::string& text)
{
    return {{"error", text}};
}

} // namespace

std::string default_control_path()
{
    if (const char* dir = std::getenv("XDG_RUNTIME_DIR"); dir != nullptr && *dir != '\0') {
        return std::string(dir) + "/mvgps.sock";
    }
    return "/tmp/mvgps-" + std::to_string(getuid()) + ".sock";
}

ControlServer::ControlServer(int fd, std::string path) : listen_fd_(fd), path_(std::move(path))
{
    acceptor_ = std::thread([this] { accept_loop(); });
}

std::unique_ptr<ControlServer> ControlServer::start(const std::string& path, std::string& error)
{
    bool fits = false;
    const sockaddr_un a = address(path, fits);
    if (!fits) {
        error = path + ": path too long for a socket";
        return nullptr;
    }
    if (in_use(a)) {
        error = path + ": another mvgps run serves this socket";
        return nullptr;
    }
    unlink(path.c_str());
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0 ||
        listen(fd, 8) != 0) {
        error = path + ": " + std::strerror(errno);
        if (fd >= 0) {
            close(fd);
        }
        return nullptr;
    }
    return std::unique_ptr<ControlServer>(new ControlServer(fd, path));
}

ControlServer::~ControlServer()
{
    stop_ = true;
    shutdown(listen_fd_, SHUT_RDWR);
    acceptor_.join();
    // No connection comes or goes now: only the acceptor adds or reaps them.
    for (Connection& c : connections_) {
        shutdown(c.fd, SHUT_RDWR);
    }
    for (Connection& c : connections_) {
        c.thread.join();
        close(c.fd);
    }
    close(listen_fd_);
    unlink(path_.c_str());
}

void ControlServer::accept_loop()
{
    while (!stop_) {
        const int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            return;
        }
        std::lock_guard guard(lock_);
        reap();
        Connection& c = connections_.emplace_back();
        c.fd = fd;
        c.thread = std::thread([this, &c] {
            serve(c.fd);
            c.done = true;
        });
    }
}

void ControlServer::reap()
{
    for (auto c = connections_.begin(); c != connections_.end();) {
        if (!c->done) {
            ++c;
            continue;
        }
        c->thread.join();
        close(c->fd);
        c = connections_.erase(c);
    }
}

void ControlServer::serve(int fd)
{
    std::string buffer;
    char chunk[4096];
    while (!stop_) {
        const auto end = buffer.find('\n');
        if (end != std::string::npos) {
            const std::string reply = answer(buffer.substr(0, end));
            buffer.erase(0, end + 1);
            if (!send_line(fd, reply)) {
                return;
            }
            continue;
        }
        if (buffer.size() > kMaxLine) {
            send_line(fd, error("request line too long").dump());
            return;
        }
        const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
        if (n <= 0) {
            return;
        }
        buffer.append(chunk, static_cast<std::size_t>(n));
    }
}

std::string ControlServer::answer(const std::string& line)
{
    const nlohmann::json request = nlohmann::json::parse(line, nullptr, false);
    if (!request.is_object() || !request.contains("code") ||
        !request["code"].is_number_unsigned()) {
        return error("a request is {\"code\": n, \"in\": \"hex\", \"out\": n}").dump();
    }
    std::vector<std::uint8_t> input;
    if (request.contains("in") &&
        (!request["in"].is_string() || !ctl::parse_hex(request["in"].get<std::string>(), input))) {
        return error("\"in\" is not hex").dump();
    }
    const std::uint64_t out = request.value("out", std::uint64_t{0});
    if (out > kMaxOutput) {
        return error("\"out\" is larger than " + std::to_string(kMaxOutput)).dump();
    }
    std::unique_ptr<pnp::ClientHandle> handle;
    const GUID interface_class = MVGPS_DEVINTERFACE_GUID_INIT;
    if (!NT_SUCCESS(pnp::ClientHandle::open_interface(interface_class, handle))) {
        return error("no device: the device interface is not there").dump();
    }
    requests_++;
    auto io = handle->ioctl_async(request["code"].get<std::uint32_t>(), input, out);
    while (!io->wait(sched::current().now() + kStopCheck)) {
        if (stop_) {
            io->cancel();
        }
    }
    const auto output = io->output().first(std::min<std::size_t>(io->information(), out));
    return nlohmann::json{{"status", static_cast<std::uint32_t>(io->status())},
                          {"information", static_cast<std::uint64_t>(io->information())},
                          {"out", ctl::to_hex(output)}}
        .dump();
}

} // namespace mvgps::tool
