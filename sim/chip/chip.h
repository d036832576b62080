// The simulated GPS chip at the far end of the UART.
//
// It hears frames (chip/frame.h) on its Line and answers every command with an
// acknowledgement of the same pid and sid whose payload starts with err_status (0: carried
// out; protocol.h lists the commands, what each does and the other values). Besides answers
// it sends:
//   - while powered and awake, a status frame (pid 50, sid 0, 4-byte sequence number) about
//     every 25 ms;
//   - while NMEA output is on, one epoch a second from its receiver model (chip/receiver.h),
//     or, when a capture is given, the epochs of that recording (chip/nmea.h), looping, at
//     its own epoch period. One frame per sentence: pid 0x31, sid 0, the sentence and CRLF
//     as payload. Clients recognise NMEA by its content, not by these identifiers.
// NMEA off (pid 0xFF, sid 2) stops the sentences, NMEA on (sid 3) restarts them; sid 4 is
// acknowledged and changes nothing. Cold start (pid 0x20, sid 6) and warm start (sid 2) drop
// the receiver model's fix, which returns after its time to first fix; a capture plays as
// recorded, from its beginning again after a cold start. Assistance blocks (pid 6) shorten the next
// search. Geofence commands (pid 0x30) work on a table of fences (chip/geofence.h).
// Every burst (an epoch, an answer) leaves as one run of bytes. The baud-rate command
// (pid 0x16, sid 0, u32 rate little-endian) is answered at the old rate; the chip switches
// once that answer has left, so a peer that stays at the old rate hears garbage. The sleep
// command (pid 0x20, sid 8) is answered, then the chip sends nothing until it hears the
// next frame, which wakes it and is served.
//
// Time and randomness come from the scheduler: the chip runs one thread ("chip") that sends
// what is due and sleeps until the next thing is; its noise, delays and receiver draw from
// their own seeded streams.
#pragma once

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sim/chip/faults.h"
#include "sim/chip/frame.h"
#include "sim/chip/nmea.h"
#include "sim/chip/protocol.h"
#include "host/sched/sched.h"
#include "sim/support/line.h"
#include "sim/support/random.h"

namespace mvgps::sim::chip
{

struct ChipConfig {
    std::uint32_t rate = 921600; // at power-on and after a reset
    ByteOrder order = ByteOrder::Little;
    bool nmea_on = true; // at power-on
    std::shared_ptr<const Capture> capture;
    sched::Nanos status_period = 25 * sched::kMillisecond;
    sched::Nanos status_jitter = sched::kMillisecond; // each period varies by up to this much
    sched::Nanos answer_delay_min = 200'000;          // from the command's last byte
    sched::Nanos answer_delay_max = sched::kMillisecond;
    sched::Nanos boot_time = 50 * sched::kMillisecond; // deaf and mute after a reset
    // A partial frame that gets no byte for this long is given up.
    sched::Nanos rx_gap = 20 * sched::kMillisecond;
    // Periodic output is skipped while this much is still queued on the line.
    sched::Nanos max_backlog = 500 * sched::kMillisecond;
    // Forces the status of every geofence answer (nullopt: the fence table decides).
    std::optional<std::uint8_t> geofence_status;
    std::size_t geofence_capacity = 8;
    ReceiverConfig receiver; // the sentence source when no capture is given
    std::vector<std::uint32_t> rates{standard_rates().begin(), standard_rates().end()};
    std::size_t trace_limit = 1 << 16; // oldest entries go first; 0 keeps no trace
};

struct ChipStats {
    std::uint64_t frames_received = 0; // good frames
    std::uint64_t bad_frames_received = 0;
    std::uint64_t frames_sent = 0;
    std::uint64_t answers_sent = 0;
    std::uint64_t nmea_sent = 0;
    std::uint64_t status_sent = 0;
    std::uint64_t epochs_sent = 0;
    std::uint64_t bytes_ignored = 0; // heard while off, booting or silent
    std::uint64_t bursts_skipped = 0;
    std::uint64_t resets = 0;
    FrameParser::Counters parser;
};

struct TraceEntry {
    sched::Nanos time = 0;
    bool sent = false;
    Frame frame;
    FrameParser::Verdict verdict = FrameParser::Verdict::Good;
    std::string text() const;
};

class Chip final : public LineReceiver
{
  public:
    Chip(Line& line, ChipConfig config);
    ~Chip();
    Chip(const Chip&) = delete;
    Chip& operator=(const Chip&) = delete;

    void inject(const Fault& f);
    // Power off: silent and deaf. Power on: boots like after a reset.
    void set_power(bool on);
    void set_geofence_status(std::optional<std::uint8_t> status);

    // Inspection; each takes the state lock.
    ChipStats stats() const;
    ChipState state() const;
    std::vector<TraceEntry> trace() const;
    std::uint32_t rate() const;
    std::vector<std::uint8_t> peek(std::uint32_t address, std::size_t count) const;
    void poke(std::uint32_t address, std::span<const std::uint8_t> bytes);
    void set_read_only(std::uint32_t address, std::uint32_t count);

    void on_bytes(std::span<const std::uint8_t> bytes, sched::Nanos arrival) override;

  private:
    // A run of bytes due at `at`, then what happens once it has left.
    struct Burst {
        sched::Nanos at = 0;
        std::vector<std::uint8_t> bytes;
        std::vector<TraceEntry> frames;
        Output kind = Output::Answers;
        std::optional<std::uint32_t> switch_rate;
        bool sleep_after = false;
    };

    void run();
    sched::Nanos deadline(sched::Nanos now) const;
    void tick(sched::Nanos now);
    bool active(sched::Nanos now) const;
    void boot(sched::Nanos now);
    void serve(const Frame& command, sched::Nanos arrival);
    void add_frame(Burst& b, Frame f);
    void schedule(Burst b);
    void emit(Burst b, sched::Nanos now);
    bool backlogged(sched::Nanos now);
    void emit_status(sched::Nanos now);
    std::vector<std::string> next_sentences(sched::Nanos now);
    void emit_epoch(sched::Nanos now);
    void record(TraceEntry e);
    void configure_rate(std::uint32_t rate);
    void heard(const Frame& f, FrameParser::Verdict v, sched::Nanos time);

    sched::Scheduler& sched_;
    Line& line_;
    const ChipConfig config_;
    Random random_;
    Protocol protocol_;
    ReceiverModel receiver_;
    const sched::Nanos epoch_period_;
    FaultScript faults_;
    FrameParser parser_;
    ChipStats stats_;
    std::deque<TraceEntry> trace_;
    std::vector<Burst> pending_; // ordered by time
    std::uint32_t rate_;
    bool powered_ = true;
    sched::Nanos booting_until_ = 0;
    sched::Nanos silent_until_ = 0;
    sched::Nanos last_rx_ = 0;
    sched::Nanos tx_done_ = 0;
    sched::Nanos answer_at_ = 0; // when the last answer was due
    sched::Nanos next_status_ = 0;
    sched::Nanos next_epoch_ = 0;
    std::size_t epoch_ = 0;
    std::uint32_t status_seq_ = 0;
    sched::WaitList wake_;
    bool kicked_ = false;
    bool stop_ = false;
    sched::Thread* thread_ = nullptr;
};

} // namespace mvgps::sim::chip
