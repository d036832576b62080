// The chip's frame codec against hand-made byte streams.
#include <gtest/gtest.h>

#include <string>

#include "sim/chip/frame.h"

namespace mvgps::sim::chip
{
namespace
{

using Bytes = std::vector<std::uint8_t>;
using Verdict = FrameParser::Verdict;

Frame frame(std::uint8_t pid, std::uint8_t sid, Bytes payload = {}, bool crc = true)
{
    Frame f;
    f.pid = pid;
    f.sid = sid;
    f.payload = std::move(payload);
    f.crc = crc;
    return f;
}

Bytes join(std::initializer_list<Bytes> parts)
{
    Bytes out;
    for (const auto& p : parts) {
        out.insert(out.end(), p.begin(), p.end());
    }
    return out;
}

TEST(ChipCodec, CrcIsXmodem)
{
    const std::string digits = "123456789";
    EXPECT_EQ(crc16(Bytes(digits.begin(), digits.end())), 0x31C3);
    EXPECT_EQ(crc16(Bytes{}), 0);
    EXPECT_EQ(crc16(Bytes{0x01}), 0x1021);
    EXPECT_EQ(crc16(Bytes{0xFF}), 0x1EF0);
}

TEST(ChipCodec, EncodesTheWireLayout)
{
    const std::uint16_t c0 = crc16(Bytes{0x80, 0x02, 0xFF, 0x02});
    const std::uint16_t c1 = crc16(Bytes{0x80, 0x05, 0x05, 0x01, 0x00, 0x01, 0x7E});
    struct Case {
        const char* name;
        Frame f;
        Bytes wire;
    } cases[] = {
        {"no payload with crc",
         frame(0xFF, 2),
         {0xA5, 0x80, 0x02, 0xFF, 0x02, Bytes::value_type(c0 >> 8), Bytes::value_type(c0), 0xA5}},
        {"no payload, no crc", frame(0x20, 6, {}, false), {0xA5, 0x00, 0x02, 0x20, 0x06, 0xA5}},
        {"one byte with crc",
         frame(0x05, 0x01, {0x7E}),
         {0xA5, 0x80, 0x05, 0x05, 0x01, 0x00, 0x01, 0x7E, Bytes::value_type(c1 >> 8),
          Bytes::value_type(c1), 0xA5}},
        {"length high bits", frame(0x31, 0, Bytes(300, 0x41), false),
         join({{0xA5, 0x01, 0x30, 0x31, 0x00, 0x01, 0x2C}, Bytes(300, 0x41), {0xA5}})},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(encode(c.f), c.wire) << c.name;
    }
}

struct Seen {
    std::vector<Frame> good;
    std::vector<Verdict> bad;
};

Seen parse_in_pieces(const Bytes& stream, std::size_t piece)
{
    FrameParser p;
    Seen s;
    for (std::size_t i = 0; i < stream.size(); i += piece) {
        const std::size_t n = std::min(piece, stream.size() - i);
        p.feed(std::span(stream).subspan(i, n), [&](const Frame& f, Verdict v) {
            if (v == Verdict::Good) {
                s.good.push_back(f);
            } else {
                s.bad.push_back(v);
            }
        });
    }
    return s;
}

TEST(ChipCodec, ParserFindsFramesInAnyStream)
{
    const Frame a = frame(0x05, 3, {1, 2, 3, 4, 5, 6, 7, 8});
    const Frame b = frame(50, 0, {9, 0, 0, 0});
    const Frame c = frame(0xFF, 2, {}, false);
    Bytes bad_crc = encode(a);
    bad_crc[bad_crc.size() - 2] ^= 0x01;
    Bytes bad_tail = encode(b);
    bad_tail.back() = 0x00;
    // A sync byte whose header promises a long frame; the real frame right behind it must
    // still come out once the false one is seen to be wrong.
    const Bytes false_start = {0xA5, 0x80, 0x40, 0x05, 0x00, 0x00, 0x3C};
    Bytes truncated = encode(a);
    truncated.pop_back();

    struct Case {
        const char* name;
        Bytes stream;
        std::vector<Frame> good;
        std::vector<Verdict> bad;
    } cases[] = {
        {"back to back", join({encode(a), encode(b), encode(c)}), {a, b, c}, {}},
        {"garbage and padding between",
         join({{0x00, 0x13}, encode(a), Bytes(7, 0xFF), encode(b), {0x42, 0xA5}, encode(c)}),
         {a, b, c},
         {}},
        {"bad crc costs one frame", join({bad_crc, encode(b)}), {b}, {Verdict::BadCrc}},
        {"bad tail costs one frame", join({bad_tail, encode(c)}), {c}, {Verdict::BadTail}},
        {"bad header bits", join({{0xA5, 0x90, 0x02, 0x01, 0x01, 0xA5}, encode(a)}), {a}, {}},
        {"pid out of range", join({{0xA5, 0x00, 0x02, 0x40, 0x01, 0xA5}, encode(b)}), {b}, {}},
        {"sid out of range", join({{0xA5, 0x00, 0x02, 0x01, 0x0F, 0xA5}, encode(b)}), {b}, {}},
        {"payload length disagrees",
         join({{0xA5, 0x00, 0x05, 0x01, 0x01, 0x00, 0x02, 0x00}, encode(c)}),
         {c},
         {}},
        {"false start hides nothing",
         join({false_start, encode(a), Bytes(60, 0x00)}),
         {a},
         {Verdict::BadTail}},
        {"truncated at the end", truncated, {}, {}},
    };
    for (const auto& c : cases) {
        for (std::size_t piece :
             {std::size_t{1}, std::size_t{3}, std::size_t{7}, c.stream.size()}) {
            const Seen s = parse_in_pieces(c.stream, piece);
            EXPECT_EQ(s.good, c.good) << c.name << ", pieces of " << piece;
            EXPECT_EQ(s.bad, c.bad) << c.name << ", pieces of " << piece;
        }
    }
}

TEST(ChipCodec, ResyncGivesUpOnAStalledFrame)
{
    const Frame a = frame(0x04, 0, {0, 0, 0, 0, 1, 0});
    FrameParser p;
    std::vector<Frame> good;
    const auto sink = [&](const Frame& f, Verdict v) {
        if (v == Verdict::Good) {
            good.push_back(f);
        }
    };
    const Bytes head = {0xA5, 0x80, 0x0A, 0x04};
    p.feed(head, sink);
    ASSERT_TRUE(p.partial());
    while (p.partial()) {
        p.resync(sink);
    }
    p.feed(encode(a), sink);
    EXPECT_EQ(good, std::vector<Frame>{a});
    EXPECT_EQ(p.counters().garbage, 3u);
}

} // namespace
} // namespace mvgps::sim::chip
