// Fault scripts: what a misbehaving chip does, armed by tests one fault at a time.
//
// Command faults (no acknowledgement, rejection, late or duplicate acknowledgement) apply to
// the next `count` commands that match the pid/sid filter, in the order they were armed.
// Output faults (corrupt CRC or tail, garbage or 0xFF padding before a frame) apply to the
// next `count` frames of the selected kind; burst splits to the next `count` bursts of it.
// Silence, reset and rate mismatch happen when they are injected.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "host/sched/sched.h"

namespace mvgps::sim::chip
{

enum class FaultKind {
    NoAck,        // the command is lost: neither carried out nor answered
    Reject,       // answered with err_status `value`, not carried out
    LateAck,      // answered `delay` later than usual
    DuplicateAck, // answered twice in a row
    CorruptCrc,   // the frame leaves with a wrong CRC
    CorruptTail,  // the frame leaves with a wrong tail byte
    Garbage,      // `bytes` random bytes go out before the frame
    Padding,      // a run of `bytes` 0xFF goes out before the frame
    SplitBurst,   // the burst is cut at a random point and its rest follows `delay` later
    Silence,      // the chip neither hears nor sends anything for `delay`
    Reset,        // the chip restarts: defaults, boot rate, empty memory
    RateMismatch, // the chip's UART switches to `value` bits/s, unasked
};

// Which frames an output fault hits.
enum class Output { Any, Answers, Nmea, Status };

struct Fault {
    FaultKind kind = FaultKind::NoAck;
    int count = 1;
    int pid = -1; // -1: any
    int sid = -1;
    Output output = Output::Any;
    sched::Nanos delay = 0;
    std::uint32_t value = 0;
    std::size_t bytes = 0;

    static Fault no_ack(int count, int pid = -1, int sid = -1);
    static Fault reject(int count, std::uint32_t err_status, int pid = -1, int sid = -1);
    static Fault late_ack(int count, sched::Nanos delay, int pid = -1, int sid = -1);
    static Fault duplicate_ack(int count, int pid = -1, int sid = -1);
    static Fault corrupt_crc(int count, Output which = Output::Any);
    static Fault corrupt_tail(int count, Output which = Output::Any);
    static Fault garbage(int count, std::size_t bytes, Output which = Output::Any);
    static Fault padding(int count, std::size_t bytes, Output which = Output::Any);
    static Fault split_burst(int count, sched::Nanos pause, Output which = Output::Any);
    static Fault silence(sched::Nanos duration);
    static Fault reset();
    static Fault rate_mismatch(std::uint32_t rate);
};

// What the armed output faults do to one frame.
struct FrameDamage {
    bool crc = false;
    bool tail = false;
    std::size_t garbage = 0;
    std::size_t padding = 0;
};

class FaultScript
{
  public:
    void arm(const Fault& f) { armed_.push_back(f); }
    // The first armed command fault matching pid/sid, with one use consumed.
    std::optional<Fault> take_command(std::uint8_t pid, std::uint8_t sid);
    FrameDamage take_frame(Output kind);
    // The pause of an armed split of this kind of burst, with one use consumed.
    std::optional<sched::Nanos> take_split(Output kind);

  private:
    std::optional<Fault> consume(std::size_t i);

    std::vector<Fault> armed_;
};

} // namespace mvgps::sim::chip
