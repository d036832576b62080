#include "tests/support/process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <chrono>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace mvgps::test
{

std::unique_ptr<Process> Process::start(const std::vector<std::string>& argv,
                                        const std::string& output, bool with_stderr)
{
    std::vector<char*> args;
    for (const std::string& a : argv) {
        args.push_back(const_cast<char*>(a.c_str()));
    }
    args.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, output.c_str(),
                                     O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (with_stderr) {
        posix_spawn_file_actions_adddup2(&actions, STDOUT_FILENO, STDERR_FILENO);
    }
    pid_t pid = 0;
    const int error = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        return nullptr;
    }
    return std::unique_ptr<Process>(new Process(pid));
}

Process::~Process()
{
    if (!status_) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

void Process::signal(int number)
{
    if (!status_) {
        kill(pid_, number);
    }
}

std::optional<int> Process::wait(std::chrono::milliseconds limit)
{
    wait_for(
        [&] {
            int status = 0;
            if (!status_ && waitpid(pid_, &status, WNOHANG) == pid_) {
                status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            return status_.has_value();
        },
        limit);
    return status_;
}

TempDir::TempDir()
{
    char pattern[] = "/tmp/mvgps-test-XXXXXX";
    dir_ = mkdtemp(pattern) != nullptr ? pattern : "/tmp";
    // Open to a daemon that runs as a user of its own, as gpsd does.
    chmod(dir_.c_str(), 0755);
}

TempDir::~TempDir()
{
    if (dir_ != "/tmp") {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
}

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool wait_for(const std::function<bool()>& done, std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

std::string too_busy_for_real_time()
{
    // These tests run alone, so the load left by a build or the tests before them decays:
    // give it a minute and a half (the load average halves in some 40 s) before giving up.
    const unsigned cores = std::max(1u, std::thread::hardware_concurrency());
    double load = 0;
    for (int second = 0; second < 90; ++second) {
        std::ifstream("/proc/loadavg") >> load;
        if (load <= 2.0 * cores) {
            return {};
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    return "the machine is too busy for a real-time run of the driver (load " +
           std::to_string(load) + " on " + std::to_string(cores) +
           " cores): its 50 ms UART read timeout cannot hold";
}

std::string find_program(const std::string& name)
{
    const char* path = std::getenv("PATH");
    std::istringstream dirs(std::string(path != nullptr ? path : "") + ":/usr/sbin:/sbin");
    for (std::string dir; std::getline(dirs, dir, ':');) {
        const std::string candidate = dir + "/" + name;
        if (!dir.empty() && access(candidate.c_str(), X_OK) == 0) {
            return candidate;
        }
    }
    return {};
}

} // namespace mvgps::test
