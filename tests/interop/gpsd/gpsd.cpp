#include "gpsd.h"

#include <fcntl.h>
#include <grp.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cstring>
#include <sstream>
#include <thread>

namespace mvgps::test
{

namespace
{

using namespace std::chrono_literals;

// A TCP port nothing listens on right now.
int free_port()
{
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof a;
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length);
    close(fd);
    return ntohs(a.sin_port);
}

} // namespace

std::string gpsd_missing()
{
    for (const char* program : {"gpsd", "gpspipe"}) {
        if (find_program(program).empty()) {
            return std::string(program) +
                   " is not installed (Debian packages gpsd and gpsd-clients; scripts/bootstrap "
                   "installs them when run as root)";
        }
    }
    return {};
}

std::unique_ptr<Gpsd> Gpsd::start(const std::string& device, const TempDir& dir,
                                  const std::string& name)
{
    auto g = std::unique_ptr<Gpsd>(new Gpsd);
    const std::string port = std::to_string(free_port());
    g->gpsd_ = Process::start({find_program("gpsd"), "-N", "-b", "-S", port, device},
                              dir.path(name + ".gpsd.log"), true);
    g->output_ = dir.path(name + ".json");
    // gpspipe gives up at once when nothing listens yet.
    const bool listening = wait_for(
        [&] {
            g->pipe_ = Process::start(
                {find_program("gpspipe"), "-w", "-o", g->output_, "localhost:" + port}, "/dev/null",
                true);
            return !g->pipe_->wait(300ms).has_value();
        },
        5s);
    return listening ? std::move(g) : nullptr;
}

bool Gpsd::wait_active()
{
    return wait_for([&] { return output().find("\"activated\"") != std::string::npos; }, 10s);
}

void Gpsd::finish()
{
    std::size_t seen = 0;
    wait_for(
        [&] {
            const std::size_t now = output().size();
            const bool quiet = now == seen;
            seen = now;
            return quiet;
        },
        2s);
    while (true) {
        std::this_thread::sleep_for(1500ms);
        const std::size_t now = output().size();
        if (now == seen) {
            break;
        }
        seen = now;
    }
    pipe_->signal(SIGTERM);
    gpsd_->signal(SIGTERM);
    pipe_->wait(2s);
    gpsd_->wait(2s);
}

std::vector<nlohmann::json> Gpsd::tpv() const
{
    std::vector<nlohmann::json> out;
    std::istringstream lines(output());
    for (std::string line; std::getline(lines, line);) {
        const auto j = nlohmann::json::parse(line, nullptr, false);
        if (!j.is_object() || j.value("class", "") != "TPV") {
            continue;
        }
        nlohmann::json kept;
        for (const char* key : {"mode", "time", "lat", "lon", "alt", "altHAE", "altMSL"}) {
            if (j.contains(key)) {
                kept[key] = j[key];
            }
        }
        out.push_back(kept);
    }
    return out;
}

FeedPty::FeedPty()
{
    master_ = posix_openpt(O_RDWR | O_NOCTTY);
    if (master_ < 0 || grantpt(master_) != 0 || unlockpt(master_) != 0) {
        return;
    }
    path_ = ptsname(master_);
    const int slave = open(path_.c_str(), O_RDWR | O_NOCTTY);
    termios t{};
    tcgetattr(slave, &t);
    cfmakeraw(&t);
    tcsetattr(slave, TCSANOW, &t);
    if (const group* dialout = getgrnam("dialout"); dialout != nullptr) {
        if (fchown(slave, static_cast<uid_t>(-1), dialout->gr_gid) == 0) {
            fchmod(slave, 0660);
        }
    }
    close(slave);
}

FeedPty::~FeedPty()
{
    if (master_ >= 0) {
        close(master_);
    }
}

bool FeedPty::wait_settled()
{
    termios seen{};
    tcgetattr(master_, &seen);
    auto since = std::chrono::steady_clock::now();
    return wait_for(
        [&] {
            termios now{};
            tcgetattr(master_, &now);
            if (std::memcmp(&now, &seen, sizeof now) != 0) {
                seen = now;
                since = std::chrono::steady_clock::now();
            }
            return std::chrono::steady_clock::now() - since > 2s;
        },
        10s);
}

void FeedPty::write(const std::string& bytes)
{
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::write(master_, bytes.data() + done, bytes.size() - done);
        if (n <= 0) {
            return;
        }
        done += static_cast<std::size_t>(n);
    }
}

} // namespace mvgps::test
