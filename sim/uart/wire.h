// The serial line between the UART controller and the chip.
//
// Each character occupies the line for its start, data, parity and stop bits at the
// sender's rate (10 bit times for 8N1), and characters sent back to back queue behind each
// other. A receiver whose rate or character format differs from the sender's sees garbage,
// roughly as many characters as its own rate fits into the same time, drawn from the wire's
// random stream, so a run replays exactly from its seed. Bit flips, dropped characters and
// noise (spurious characters) can be switched on per direction.
//
// Delivery runs on one thread per direction, which hands over what has arrived at most once
// per quantum (a run of bytes carries the arrival time of its last byte); next_arrival()
// tells a receiver about bytes still on their way.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <vector>

#include "host/sched/sched.h"
#include "sim/support/line.h"
#include "sim/support/random.h"

namespace mvgps::sim::uart
{

// Per-character probabilities on the way to one end.
struct Impairments {
    double flip = 0;  // one bit of the character inverted
    double drop = 0;  // the character lost
    double noise = 0; // a spurious character after it
};

struct WireStats {
    std::uint64_t sent = 0;
    std::uint64_t delivered = 0;
    std::uint64_t garbled = 0; // characters seen through a rate or format mismatch
    std::uint64_t flipped = 0;
    std::uint64_t dropped = 0;
    std::uint64_t noise = 0;
};

class Wire
{
  public:
    class End final : public Line
    {
      public:
        void attach(LineReceiver* receiver) override;
        bool configure(const LineSettings& s) override;
        LineSettings settings() const override;
        sched::Nanos send_after(sched::Nanos idle, std::span<const std::uint8_t> bytes) override;
        std::size_t discard_unsent() override;
        void discard_received() override;
        sched::Nanos next_arrival() const override;

        // Applies to characters on their way to this end from now on.
        void impair(const Impairments& i);
        // Counters of the characters travelling to this end.
        WireStats stats() const;

      private:
        friend class Wire;
        Wire* wire_ = nullptr;
        int index_ = 0;
        LineSettings settings_;
        LineReceiver* receiver_ = nullptr;
    };

    explicit Wire(sched::Nanos quantum = sched::kMillisecond);
    ~Wire();
    Wire(const Wire&) = delete;
    Wire& operator=(const Wire&) = delete;

    // By convention the controller sits on a() and the chip on b().
    End& a() { return ends_[0]; }
    End& b() { return ends_[1]; }

  private:
    struct Chunk {
        sched::Nanos start = 0;
        LineSettings settings;
        std::vector<std::uint8_t> bytes;
        std::size_t delivered = 0;
    };
    // Characters travelling to ends_[i] live in channels_[i].
    struct Channel {
        std::deque<Chunk> chunks;
        sched::Nanos busy_until = 0; // when the sender's last queued character has left
        sched::Nanos last_delivery = 0;
        Impairments impairments;
        WireStats stats;
        double garbage_carry = 0;
        bool kicked = false;
        sched::WaitList wake;
        sched::Thread* thread = nullptr;
        Random random;
        explicit Channel(const char* stream) : random(stream) {}
    };

    void run(int to);
    sched::Nanos next_arrival(const Channel& c) const;
    void deliver(int to, sched::Nanos now);
    void pass(Channel& c, const LineSettings& from, const LineSettings& to,
              std::span<const std::uint8_t> in, std::vector<std::uint8_t>& out);

    sched::Scheduler& sched_;
    const sched::Nanos quantum_;
    std::array<End, 2> ends_;
    std::array<Channel, 2> channels_;
    bool stop_ = false;
};

} // namespace mvgps::sim::uart
