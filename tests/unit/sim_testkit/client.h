// The test side of a line: sends frames with the chip's codec and records what comes back,
// with arrival times. Waiting runs the simulation (the test thread blocks in the scheduler).
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "sched/sched.h"
#include "sim/chip/frame.h"
#include "sim/support/line.h"

namespace mvgps::sim::testkit
{

struct Received {
    chip::Frame frame;
    sched::Nanos arrival = 0;
    chip::FrameParser::Verdict verdict = chip::FrameParser::Verdict::Good;
};

class Client final : public LineReceiver
{
  public:
    Client(Line& line, std::uint32_t rate);
    ~Client();

    void set_rate(std::uint32_t rate);
    void send(const chip::Frame& f);
    void send_raw(std::span<const std::uint8_t> bytes);
    // Sends a command and waits for its acknowledgement (same pid and sid).
    std::optional<Received> command(std::uint8_t pid, std::uint8_t sid,
                                    std::vector<std::uint8_t> payload = {},
                                    sched::Nanos timeout = 100 * sched::kMillisecond);
    // The first good frame with this pid and sid that arrives from now on.
    std::optional<Received> await(std::uint8_t pid, std::uint8_t sid, sched::Nanos timeout);

    std::vector<Received> received() const;
    std::vector<std::uint8_t> raw() const;
    void clear();

    void on_bytes(std::span<const std::uint8_t> bytes, sched::Nanos arrival) override;

  private:
    std::optional<Received> wait_for(std::size_t from, std::uint8_t pid, std::uint8_t sid,
                                     sched::Nanos deadline);

    sched::Scheduler& sched_;
    Line& line_;
    chip::FrameParser parser_;
    std::vector<Received> received_;
    std::vector<std::uint8_t> raw_;
    sched::WaitList wake_;
};

// Lets the simulation run for `d` of its time.
void run_for(sched::Nanos d);

std::vector<std::uint8_t> le32(std::uint32_t v);
std::vector<std::uint8_t> le16(std::uint16_t v);
std::uint32_t get_le32(std::span<const std::uint8_t> p);
std::vector<std::uint8_t> cat(std::initializer_list<std::vector<std::uint8_t>> parts);

} // namespace mvgps::sim::testkit
