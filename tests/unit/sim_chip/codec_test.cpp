// The chip's frame codec against hand-made byte streams (the CRCs in them are the link's).
#include <gtest/gtest.h>

#include "tests/unit/sim_chip/world.h"

namespace mvgps::sim::chip
{
namespace
{

using Verdict = FrameParser::Verdict;

TEST(ChipCodec, EncodesTheWireLayout)
{
    struct Case {
        const char* name;
        Frame f;
        Bytes wire;
    } cases[] = {
        {"no payload", {0xFF, 2, true, {}}, {0xA5, 0x80, 0x02, 0xFF, 0x02, 0x90, 0xE5, 0xA5}},
        {"no payload, no crc", {0x20, 6, false, {}}, {0xA5, 0x00, 0x02, 0x20, 0x06, 0xA5}},
        {"one byte", {5, 1, true, {0x7E}}, {0xA5, 0x80, 5, 5, 1, 0, 1, 0x7E, 0x11, 0x73, 0xA5}},
        {"length high bits",
         {0x31, 0, false, Bytes(300, 0x41)},
         cat({{0xA5, 0x01, 0x30, 0x31, 0x00, 0x01, 0x2C}, Bytes(300, 0x41), {0xA5}})},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(encode(c.f), c.wire) << c.name;
    }
}

struct Seen {
    std::vector<Frame> good;
    std::vector<Verdict> bad;
    FrameParser::Sink sink()
    {
        return [this](const Frame& f, Verdict v) {
            if (v == Verdict::Good) {
                good.push_back(f);
            } else {
                bad.push_back(v);
            }
        };
    }
};

Seen parse_in_pieces(const Bytes& stream, std::size_t piece)
{
    FrameParser p;
    Seen s;
    for (std::size_t i = 0; i < stream.size(); i += piece) {
        p.feed(std::span(stream).subspan(i, std::min(piece, stream.size() - i)), s.sink());
    }
    return s;
}

TEST(ChipCodec, ParserFindsFramesInAnyStream)
{
    const Frame a{0x05, 3, true, {1, 2, 3, 4, 5, 6, 7, 8}};
    const Frame b{50, 0, true, {9, 0, 0, 0}};
    const Frame c{0xFF, 2, false, {}};
    const Bytes ea = encode(a), eb = encode(b), ec = encode(c);
    Bytes bad_crc = ea;
    bad_crc[bad_crc.size() - 2] ^= 0x01;
    Bytes bad_tail = eb;
    bad_tail.back() = 0x00;
    // A sync byte whose header promises a long frame; the real frame right behind it must
    // still come out once the false one is seen to be wrong.
    const Bytes false_start = {0xA5, 0x80, 0x40, 0x05, 0x00, 0x00, 0x3C};

    struct Case {
        const char* name;
        Bytes stream;
        std::vector<Frame> good;
        std::vector<Verdict> bad;
    } cases[] = {
        {"back to back", cat({ea, eb, ec}), {a, b, c}, {}},
        {"junk between", cat({{0, 0x13}, ea, Bytes(7, 0xFF), eb, {0x42, 0xA5}, ec}), {a, b, c}, {}},
        {"bad crc costs one frame", cat({bad_crc, eb}), {b}, {Verdict::BadCrc}},
        {"bad tail costs one frame", cat({bad_tail, ec}), {c}, {Verdict::BadTail}},
        {"bad header bits", cat({{0xA5, 0x90, 0x02, 0x01, 0x01, 0xA5}, ea}), {a}, {}},
        {"pid out of range", cat({{0xA5, 0x00, 0x02, 0x40, 0x01, 0xA5}, eb}), {b}, {}},
        {"sid out of range", cat({{0xA5, 0x00, 0x02, 0x01, 0x0F, 0xA5}, eb}), {b}, {}},
        {"payload length disagrees", cat({{0xA5, 0, 5, 1, 1, 0, 2, 0}, ec}), {c}, {}},
        {"false start", cat({false_start, ea, Bytes(60, 0)}), {a}, {Verdict::BadTail}},
        {"truncated at the end", Bytes(ea.begin(), ea.end() - 1), {}, {}},
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
    const Frame a{0x04, 0, true, {0, 0, 0, 0, 1, 0}};
    FrameParser p;
    Seen s;
    p.feed(Bytes{0xA5, 0x80, 0x0A, 0x04}, s.sink());
    ASSERT_TRUE(p.partial());
    while (p.partial()) {
        p.resync(s.sink());
    }
    p.feed(encode(a), s.sink());
    EXPECT_EQ(s.good, std::vector<Frame>{a});
    EXPECT_EQ(p.counters().garbage, 3u);
}

} // namespace
} // namespace mvgps::sim::chip
