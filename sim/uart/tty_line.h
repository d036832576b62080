// A Line over a POSIX tty: a USB-serial adapter, a real port, or one side of a pty pair.
// The rate and character format go to termios; a reader thread polls the descriptor and
// hands over what it reads, a writer thread writes what was queued.
//
// The threads block in the operating system, so a tty only works with the realtime
// scheduler. A pty carries bytes whatever rates its two sides are set to.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "host/sched/sched.h"
#include "sim/support/line.h"

namespace mvgps::sim::uart
{

class TtyLine final : public Line
{
  public:
    // Opens a tty device in raw mode; null with a reason when it cannot.
    static std::unique_ptr<TtyLine> open(const std::string& path, std::string& error);
    // Two connected lines (the master and the slave of a pty).
    static bool open_pair(std::unique_ptr<TtyLine>& a, std::unique_ptr<TtyLine>& b,
                          std::string& error);

    // Takes ownership of a descriptor already in raw mode.
    explicit TtyLine(int fd);
    ~TtyLine() override;
    TtyLine(const TtyLine&) = delete;
    TtyLine& operator=(const TtyLine&) = delete;

    void attach(LineReceiver* receiver) override;
    bool configure(const LineSettings& s) override;
    LineSettings settings() const override;
    sched::Nanos send_after(sched::Nanos idle, std::span<const std::uint8_t> bytes) override;
    std::size_t discard_unsent() override;
    void discard_received() override;
    sched::Nanos next_arrival() const override;

  private:
    struct Pending {
        sched::Nanos not_before;
        std::vector<std::uint8_t> bytes;
    };

    void read_loop();
    void write_loop();
    bool write_all(const std::vector<std::uint8_t>& bytes);

    sched::Scheduler& sched_;
    const int fd_;
    int stop_pipe_[2] = {-1, -1};
    LineSettings settings_;
    LineReceiver* receiver_ = nullptr;
    std::deque<Pending> queue_;
    sched::Nanos tx_end_ = 0;
    sched::WaitList wake_;
    bool stop_ = false;
    sched::Thread* reader_ = nullptr;
    sched::Thread* writer_ = nullptr;
};

} // namespace mvgps::sim::uart
