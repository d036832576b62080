#include "tools/mvgps/control_client.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <nlohmann/json.hpp>

#include "tools/ctl/hex.h"

namespace mvgps::tool
{

std::unique_ptr<ControlClient> ControlClient::connect(const std::string& path, std::string& error)
{
    sockaddr_un a{};
    a.sun_family = AF_UNIX;
    if (path.size() >= sizeof a.sun_path) {
        error = path + " is too long for a socket path";
        return nullptr;
    }
    std::memcpy(a.sun_path, path.c_str(), path.size() + 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0) {
        error =
            "nothing serves " + path + " (" + std::strerror(errno) + "; start `mvgps run` first)";
        if (fd >= 0) {
            close(fd);
        }
        return nullptr;
    }
    return std::unique_ptr<ControlClient>(new ControlClient(fd));
}

ControlClient::~ControlClient()
{
    close(fd_);
}

bool ControlClient::read_line(std::string& line)
{
    for (;;) {
        if (const auto end = buffer_.find('\n'); end != std::string::npos) {
            line = buffer_.substr(0, end);
            buffer_.erase(0, end + 1);
            return true;
        }
        char chunk[4096];
        const ssize_t n = recv(fd_, chunk, sizeof chunk, 0);
        if (n <= 0) {
            return false;
        }
        buffer_.append(chunk, static_cast<std::size_t>(n));
    }
}

bool ControlClient::control(std::uint32_t code, const std::vector<std::uint8_t>& input,
                            std::uint32_t output_length, ctl::Reply& reply, std::string& error)
{
    const std::string line =
        nlohmann::json{{"code", code}, {"in", ctl::to_hex(input)}, {"out", output_length}}.dump() +
        "\n";
    if (send(fd_, line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size())) {
        error = "the control socket closed";
        return false;
    }
    std::string answer;
    if (!read_line(answer)) {
        error = "the control socket closed before the answer";
        return false;
    }
    const auto j = nlohmann::json::parse(answer, nullptr, false);
    if (!j.is_object() || j.contains("error")) {
        error = j.is_object() ? j["error"].get<std::string>() : "an answer that is not JSON";
        return false;
    }
    reply.status = j.value("status", std::uint32_t{0});
    reply.information = j.value("information", std::uint64_t{0});
    if (!ctl::parse_hex(j.value("out", std::string()), reply.output)) {
        error = "an answer whose output is not hex";
        return false;
    }
    return true;
}

} // namespace mvgps::tool
