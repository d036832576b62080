// The chip's own frame codec. It is written apart from the driver's link code on purpose:
// each implementation checks the other.
//
//   A5 | C000LLLL LLLLLLLL | pid | sid | [len hi, len lo, payload...] | [crc hi, crc lo] | A5
//
// C is the CRC flag, L the length of pid through payload (2 without a payload, n + 4 with
// one). The CRC is CRC-16/XMODEM over the length bytes through the payload.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace mvgps::sim::chip
{

inline constexpr std::uint8_t kSync = 0xA5;
inline constexpr std::uint8_t kPad = 0xFF;
inline constexpr std::size_t kMaxPayload = 0xFFF - 4;

struct Frame {
    std::uint8_t pid = 0;
    std::uint8_t sid = 0;
    bool crc = true;
    std::vector<std::uint8_t> payload;

    bool operator==(const Frame&) const = default;
};

std::uint16_t crc16(std::span<const std::uint8_t> bytes);

// The bytes of one frame on the wire; the payload must not exceed kMaxPayload.
std::vector<std::uint8_t> encode(const Frame& f);

bool valid_ids(std::uint8_t pid, std::uint8_t sid);

// One line of text: pid/sid, payload length and the payload in hex.
std::string describe(const Frame& f);

// Cuts a byte stream into frames. Bytes before a sync byte are skipped (0xFF padding is
// counted apart from other garbage). A candidate that turns out not to be a frame (a bad
// header, tail or CRC) costs only its sync byte: scanning resumes at the next byte, so a
// stray 0xA5 cannot hide a real frame behind it.
class FrameParser
{
  public:
    struct Counters {
        std::uint64_t frames = 0;
        std::uint64_t padding = 0;
        std::uint64_t garbage = 0;
        std::uint64_t bad_header = 0;
        std::uint64_t bad_tail = 0;
        std::uint64_t bad_crc = 0;
    };
    enum class Verdict { Good, BadTail, BadCrc };
    using Sink = std::function<void(const Frame&, Verdict)>;

    // Frames with a bad tail or CRC are reported too (with their verdict) so that a trace
    // shows them; only Good frames are meant to be acted on.
    void feed(std::span<const std::uint8_t> bytes, const Sink& sink);
    // Gives up on a partial frame: drops its sync byte and rescans what follows.
    void resync(const Sink& sink);
    void clear() { buf_.clear(); }
    bool partial() const { return !buf_.empty(); }
    const Counters& counters() const { return counters_; }

  private:
    void scan(const Sink& sink);

    std::vector<std::uint8_t> buf_;
    Counters counters_;
};

} // namespace mvgps::sim::chip
