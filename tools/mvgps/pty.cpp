#include "tools/mvgps/pty.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace mvgps::tool
{

NmeaPty::NmeaPty(int master, std::string path, std::string link)
    : master_(master), path_(std::move(path)), link_(std::move(link))
{
}

std::unique_ptr<NmeaPty> NmeaPty::open(const std::string& link, std::string& error)
{
    const int master = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0) {
        error = std::string("no pseudo-terminal: ") + std::strerror(errno);
        if (master >= 0) {
            close(master);
        }
        return nullptr;
    }
    const std::string path = ptsname(master);
    // Raw once, from the slave side: the line discipline keeps it while the master is open,
    // so a reader that sets nothing still sees the sentences unchanged.
    const int slave = ::open(path.c_str(), O_RDWR | O_NOCTTY);
    termios t{};
    if (slave < 0 || tcgetattr(slave, &t) != 0) {
        error = path + ": " + std::strerror(errno);
        if (slave >= 0) {
            close(slave);
        }
        close(master);
        return nullptr;
    }
    cfmakeraw(&t);
    tcsetattr(slave, TCSANOW, &t);
    if (const group* dialout = getgrnam("dialout");
        dialout != nullptr && fchown(slave, static_cast<uid_t>(-1), dialout->gr_gid) == 0) {
        fchmod(slave, 0660);
    }
    close(slave);
    if (!link.empty()) {
        unlink(link.c_str());
        if (symlink(path.c_str(), link.c_str()) != 0) {
            error = link + ": " + std::strerror(errno);
            close(master);
            return nullptr;
        }
    }
    return std::unique_ptr<NmeaPty>(new NmeaPty(master, path, link));
}

NmeaPty::~NmeaPty()
{
    if (!link_.empty()) {
        unlink(link_.c_str());
    }
    close(master_);
}

// With no slave open the master reports a hang-up.
bool NmeaPty::reader_present() const
{
    pollfd p{master_, POLLOUT, 0};
    return poll(&p, 1, 0) >= 0 && (p.revents & POLLHUP) == 0;
}

// On the master the terminal calls act on the slave's settings.
std::string NmeaPty::settings() const
{
    termios t{};
    tcgetattr(master_, &t);
    return std::string(reinterpret_cast<const char*>(&t), sizeof t);
}

bool NmeaPty::write(const std::string& sentence)
{
    // Without a reader the lines would pile up in the terminal and reach the next reader
    // stale; the program must not wait for one either, its reads are waiting to be renewed.
    if (!reader_present()) {
        dropped_++;
        return false;
    }
    const std::string line = sentence + "\r\n";
    std::size_t done = 0;
    // A reader that falls behind gets a short wait before the line is given up.
    for (int tries = 0; done < line.size() && tries < 10; ++tries) {
        const ssize_t n = ::write(master_, line.data() + done, line.size() - done);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EINTR) {
            break;
        }
        pollfd p{master_, POLLOUT, 0};
        poll(&p, 1, 5);
    }
    if (done < line.size()) {
        dropped_++;
        return false;
    }
    return true;
}

} // namespace mvgps::tool
