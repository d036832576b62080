// Programs a test starts and stops: the mvgps program, gpsd, gpspipe. Each child's output
// goes to a file the test reads while it runs.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace mvgps::test
{

class Process
{
  public:
    // Starts argv[0] (searched in PATH) with stdout, and stderr too when asked, to `output`;
    // null when it cannot be started.
    static std::unique_ptr<Process> start(const std::vector<std::string>& argv,
                                          const std::string& output, bool with_stderr = false);
    // Kills a child still running and reaps it.
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    void signal(int number);
    // The exit status (-1 when a signal ended it), or nothing when it still runs after `limit`.
    std::optional<int> wait(std::chrono::milliseconds limit);

  private:
    explicit Process(pid_t pid) : pid_(pid) {}
    pid_t pid_;
    std::optional<int> status_;
};

// A fresh directory under /tmp that every user may read, removed with what it holds when the object
// goes.
class TempDir
{
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    std::string path(const std::string& name) const { return dir_ + "/" + name; }

  private:
    std::string dir_;
};

std::string read_file(const std::string& path);
// Polls `done` every 20 ms until it holds or `limit` passes.
bool wait_for(const std::function<bool()>& done, std::chrono::milliseconds limit);
// Why the machine is too busy for a test that runs the driver in real time (a load above
// twice its cores that does not fall within a minute and a half: the driver's 50 ms read
// timeout cannot hold then), or empty.
std::string too_busy_for_real_time();
// Whether an executable of this name is in PATH or in /usr/sbin.
std::string find_program(const std::string& name);

} // namespace mvgps::test
