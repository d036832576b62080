// One end of a serial line, as the things attached to it see it: the simulated wire, or a
// real tty. The chip and the UART controller talk to a Line and do not know which it is.
//
// Every call is made with the scheduler's state lock held; receivers are called with it held
// too, so a receiver only records what arrived and wakes whoever waits for it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "host/sched/sched.h"

namespace mvgps::sim
{

// Character format, with the encodings of the serial control records: parity 0 none, 1 odd,
// 2 even, 3 mark, 4 space; stop bits 0 one, 1 one and a half, 2 two.
struct LineFormat {
    std::uint8_t data_bits = 8;
    std::uint8_t parity = 0;
    std::uint8_t stop_bits = 0;
    bool operator==(const LineFormat&) const = default;
};

struct LineSettings {
    std::uint32_t rate = 9600;
    LineFormat format;
    bool operator==(const LineSettings&) const = default;
};

// The rates a serial port commonly offers, slowest first.
std::span<const std::uint32_t> standard_rates();

// Time that n characters take on the line: start bit, data, parity and stop bits each.
sched::Nanos line_time(const LineSettings& s, std::size_t n);
// How many whole characters have been on the line `elapsed` after the first one started.
std::size_t chars_in(const LineSettings& s, sched::Nanos elapsed);

class LineReceiver
{
  public:
    // `arrival` is when the last of `bytes` finished arriving.
    virtual void on_bytes(std::span<const std::uint8_t> bytes, sched::Nanos arrival) = 0;

  protected:
    ~LineReceiver() = default;
};

class Line
{
  public:
    virtual ~Line() = default;

    virtual void attach(LineReceiver* receiver) = 0;
    // Applies to characters sent from now on and to those received from now on. False when
    // the line cannot run with these settings.
    virtual bool configure(const LineSettings& s) = 0;
    virtual LineSettings settings() const = 0;
    // Queues bytes behind those still being shifted out, after the line has been left idle
    // for `idle` more; returns when the last byte leaves.
    virtual sched::Nanos send_after(sched::Nanos idle, std::span<const std::uint8_t> bytes) = 0;
    sched::Nanos send(std::span<const std::uint8_t> bytes) { return send_after(0, bytes); }
    // Drops the queued bytes that have not started to leave; returns how many.
    virtual std::size_t discard_unsent() = 0;
    // Drops what has reached this end but has not been handed to its receiver yet.
    virtual void discard_received() = 0;
    // When the next byte on its way to this end arrives (kForever when none is in flight).
    virtual sched::Nanos next_arrival() const = 0;
};

} // namespace mvgps::sim
