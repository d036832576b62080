// Reassembly of frames from reads cut anywhere, resynchronisation, and what is dropped.
#include <gmock/gmock.h>

#include <random>

#include "link_fixture.h"

namespace mvgps::test
{
namespace
{

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

Bytes payload_of(std::size_t length, std::uint8_t seed)
{
    Bytes payload(length);
    for (std::size_t i = 0; i < length; i++) {
        payload[i] = static_cast<std::uint8_t>(seed + i * 37);
    }
    return payload;
}

// Frames as the chip sends them: mixed sizes, with and without CRC, padded; payloads hold
// sync and padding values too.
struct Stream {
    std::vector<Bytes> frames;
    Bytes bytes;
};

Stream mixed_stream()
{
    const Bytes tricky{0xA5, 0xFF, 0xA5, 0xA5, 0x00, 0xFF, 0xFF, 0x80, 0x02};
    Stream s;
    const Bytes parts[][2] = {
        {tx_frame(1, 0x32, 0, payload_of(4, 1)), tx_frame(1, 0x32, 0, payload_of(4, 1), true)},
        {tx_frame(0, 0xFF, 3), tx_frame(0, 0xFF, 3, {}, true)},
        {tx_frame(1, 0x05, 1, tricky), tx_frame(1, 0x05, 1, tricky, true)},
        {tx_frame(1, 0x04, 0), tx_frame(1, 0x04, 0, {}, true)},
        {tx_frame(0, 0x20, 14, payload_of(70, 9)), tx_frame(0, 0x20, 14, payload_of(70, 9), true)},
    };
    for (const auto& [frame, padded] : parts) {
        s.frames.push_back(frame);
        s.bytes.insert(s.bytes.end(), padded.begin(), padded.end());
    }
    return s;
}

Bytes slice(const Bytes& b, std::size_t from, std::size_t to)
{
    return Bytes(b.begin() + static_cast<std::ptrdiff_t>(from),
                 b.begin() + static_cast<std::ptrdiff_t>(to));
}

class ReassemblyTest : public LinkTest
{
  protected:
    // Hands the stream over in reads ending at the given offsets (empty reads are skipped, as
    // the read thread never passes them on).
    void feed(const Bytes& stream, std::initializer_list<std::size_t> cuts)
    {
        std::size_t from = 0;
        std::vector<std::size_t> ends(cuts);
        ends.push_back(stream.size());
        for (std::size_t end : ends) {
            if (end > from) {
                recv(slice(stream, from, end));
            }
            from = end;
        }
    }
    void restart()
    {
        recorder_.frames.clear();
        init_hci_circ(&circ_);
        reset_counters();
    }
};

TEST_F(ReassemblyTest, EveryCutYieldsEveryFrame)
{
    const Stream s = mixed_stream();
    for (std::size_t i = 0; i <= s.bytes.size(); i++) {
        for (std::size_t j = i; j <= s.bytes.size(); j++) {
            restart();
            feed(s.bytes, {i, j});
            ASSERT_EQ(frames(), s.frames) << "reads end at " << i << " and " << j;
            ASSERT_EQ(circ_.circ_count, 0);
        }
    }
    EXPECT_EQ(cnt_large + cnt_ipsid + cnt_no_tail, 0u);
}

TEST_F(ReassemblyTest, RandomReadSizes)
{
    std::mt19937_64 random(sched_.get().seed());
    Stream s;
    for (int i = 0; i < 300; i++) {
        const std::size_t length = 20 + random() % 63;
        const std::uint8_t crc = random() % 4 != 0;
        s.frames.push_back(tx_frame(crc, 0x20, 1, payload_of(length, std::uint8_t(i))));
        const Bytes padded = tx_frame(crc, 0x20, 1, payload_of(length, std::uint8_t(i)), true);
        s.bytes.insert(s.bytes.end(), padded.begin(), padded.end());
    }
    for (std::size_t largest : {16, 200, 2048}) {
        SCOPED_TRACE(largest);
        restart();
        for (std::size_t at = 0; at < s.bytes.size();) {
            const std::size_t n =
                std::min<std::size_t>(1 + random() % largest, s.bytes.size() - at);
            recv(slice(s.bytes, at, at + n));
            at += n;
        }
        EXPECT_EQ(frames(), s.frames);
    }
}

TEST_F(ReassemblyTest, GarbageAndPaddingAreSkipped)
{
    const Bytes a = tx_frame(1, 0x01, 0x01, {0x11});
    const Bytes b = tx_frame(0, 0x02, 0x02);
    const Bytes ff(300, 0xFF);
    struct Case {
        const char* name;
        Bytes stream;
    };
    const Case cases[] = {
        {"garbage first", concat({{0x00, 0x13, 0x37, 0x80}, a, b})},
        {"padding between", concat({a, ff, b, ff})},
        {"garbage between", concat({a, {0x24, 0x47, 0x50}, b})},
        {"padding first", concat({ff, a, b})},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        restart();
        recv(c.stream);
        EXPECT_THAT(frames(), ElementsAre(a, b));
        EXPECT_EQ(circ_.circ_count, 0);
    }
}

TEST_F(ReassemblyTest, BadFrameIsDroppedAlone)
{
    const Bytes before = tx_frame(1, 0x01, 0x01, {0x11, 0x22});
    const Bytes after = tx_frame(0, 0x03, 0x03, {0x33});
    Bytes bad_crc = tx_frame(1, 0x07, 0x08, {0x44, 0x55});
    bad_crc[8] ^= 0x40;
    Bytes bad_tail = tx_frame(0, 0x07, 0x08, {0x44, 0x55});
    bad_tail.back() = 0x00;
    struct Logged {
        const char* function;
        const char* message;
    };
    struct Case {
        const char* name;
        Bytes bad;
        Logged whole, split; // the bad frame in one read, or split across two
    };
    const Case cases[] = {
        {"crc",
         bad_crc,
         {"parse_one_packet", "pid 07, sid 08, CRC error"},
         {"parse_one_packet", "pid 07, sid 08, CRC error"}},
        {"tail",
         bad_tail,
         {"process_buff", "PKT_NO_TAIL"},
         {"recv_hci_buffer", "[PKT_NO_TAIL] in circ, discard it, l 10, circ_pn 10"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Bytes stream = concat({before, c.bad, after});
        for (bool split : {false, true}) {
            restart();
            kernel::clear_debug_output();
            feed(stream, {split ? before.size() + 4 : stream.size()});
            EXPECT_THAT(frames(), ElementsAre(before, after));
            const Logged& logged = split ? c.split : c.whole;
            EXPECT_THAT(log(), HasSubstr(log_line(logged.function, logged.message)));
        }
    }
}

TEST_F(ReassemblyTest, GiveUpAfterFourBadFramesOfOneKind)
{
    const Bytes no_tail{0xA5, 0x00, 0x02, 0x01, 0x01, 0x00};
    const Bytes ipsid{0xA5, 0x00, 0x02, 0x33, 0x00, 0x00};
    const Bytes large{0xA5, 0x10, 0x02, 0x01, 0x01, 0x00};
    Bytes crc_error = tx_frame(1, 0x01, 0x01);
    crc_error[5] ^= 1;
    const Bytes good = tx_frame(1, 0x02, 0x02, {0x01, 0x02, 0x03}, true);
    auto times = [](const Bytes& b, int n) {
        Bytes all;
        for (int i = 0; i < n; i++) {
            all.insert(all.end(), b.begin(), b.end());
        }
        return all;
    };
    struct Case {
        const char* name;
        Bytes stream;
        LONG result;
        std::size_t delivered;
    };
    const Case cases[] = {
        {"three without tail", concat({times(no_tail, 3), good}), 0, 1},
        {"four without tail", concat({times(no_tail, 4), good, good}), -1, 0},
        {"four bad identifiers", concat({times(ipsid, 4), good}), -1, 0},
        {"four too large", concat({times(large, 4), good}), -1, 0},
        {"three of each kind", concat({times(no_tail, 3), times(ipsid, 3), times(large, 3), good}),
         0, 1},
        {"a good frame starts the count again",
         concat({times(no_tail, 3), good, times(no_tail, 3), good}), 0, 2},
        // A CRC error is found after the scan has counted the frame as whole.
        {"a crc error starts the count again",
         concat({times(no_tail, 3), crc_error, times(no_tail, 3), good}), 0, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        restart();
        cnt_full = 100;
        EXPECT_EQ(scan(c.stream), c.result);
        EXPECT_EQ(recorder_.frames.size(), c.delivered);
        if (c.result == -1) {
            // Every counter but the good-frame count starts again, and so does the scan.
            EXPECT_EQ(cnt_no_sync + cnt_short + cnt_part + cnt_large + cnt_ipsid + cnt_no_tail, 0u);
            EXPECT_EQ(cnt_full, 100u);
            EXPECT_EQ(scan(good), 0);
            EXPECT_EQ(recorder_.frames.size(), 1u);
        }
    }
}

TEST_F(ReassemblyTest, ZeroBytesDoNothing)
{
    cnt_no_tail = 4; // over the limit, yet an empty scan gives up nothing
    EXPECT_EQ(scan({}), 0);
    EXPECT_EQ(cnt_no_tail, 4u);
    cnt_no_tail = 0;
    recv({});
    EXPECT_THAT(recorder_.frames, IsEmpty());
    EXPECT_EQ(circ_.circ_count, 0);
}

TEST_F(ReassemblyTest, SplitHeaderIsLogged)
{
    const Bytes frame = tx_frame(1, 0x04, 0x01, {0x5A});
    feed(frame, {3});
    EXPECT_EQ(cnt_short, 1u);
    EXPECT_THAT(frames(), ElementsAre(frame));
    const std::string expected[] = {
        "-e, part of previous hci pkt, l 3, len 8",
        "move 6 bytes to circ, pid 04, sid 01, circ_pn 11",
        "Found full packet in circ",
        "-x, part",
    };
    std::string::size_type at = 0;
    for (const std::string& message : expected) {
        at = log().find(log_line("recv_hci_buffer", message), at);
        ASSERT_NE(at, std::string::npos) << message << "\n" << log();
    }
}

// What the carry-over buffer loses, by design or because it is full.
TEST_F(ReassemblyTest, CarryOverLosses)
{
    const Bytes a = tx_frame(1, 0x01, 0x01, {0x11});
    const Bytes b = tx_frame(0, 0x02, 0x02, {0x22});
    const Bytes huge = tx_frame(1, 0x05, 0x00, Bytes(4091, 0x5A)); // 4101 bytes
    const Bytes header_only{0xA5, 0x00, 0x00, 0x01, 0x01};         // announces 4 bytes

    struct Case {
        const char* name;
        std::vector<Bytes> reads;
        std::vector<Bytes> delivered;
        const char* message; // in recv_hci_buffer's log
    };
    const Case cases[] = {
        // Bytes after a sync byte and padding are kept, with the header they no longer have;
        // the frame they hold comes out one read late.
        {"padding after a sync byte",
         {{0xA5, 0xFF}, concat({{0xFF, 0xFF, 0xFF}, a}), b},
         {a, b},
         "Partial pkt in circ after copying, l 11, circ_pn 4101"},
        // The same for padding alone: what is left becomes the start, and does not begin
        // with a sync byte, so the next read goes with it.
        {"padding after a sync byte, valid identifiers",
         {{0xA5, 0xFF}, concat({{0x00, 0x01, 0x01}, a}), b, b},
         {b},
         "Partial pkt in circ after copying, l 14, circ_pn 261"},
        // A held start that does not begin with a sync byte takes the next read with it.
        {"held bytes without sync",
         {{0xA5, 0xFF}, {0xFF, 0xFF, 0xFF, 0x01, 0x02}, a, b},
         {b},
         "no hci preamble code in circ"},
        {"frame longer than the area",
         {slice(huge, 0, 2048), slice(huge, 2048, 4096),
          concat({slice(huge, 4096, huge.size()), a})},
         {a},
         "[PKT_PART] in circ, discard it, l 4101, circ_pn 4101, len 11, orig_len 16"},
        {"frame longer than the area, in one read", {concat({huge, a})}, {huge, a}, nullptr},
        {"start longer than the area",
         {slice(huge, 0, 4100), concat({slice(huge, 4100, 4101), a})},
         {a},
         nullptr},
        {"start as long as its frame",
         {header_only, a},
         {a},
         "[PKT_SHORT] in circ, discard it, l 5, circ_pn 4"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        restart();
        kernel::clear_debug_output();
        for (const Bytes& read : c.reads) {
            recv(read);
        }
        EXPECT_EQ(frames(), c.delivered);
        if (c.message != nullptr) {
            EXPECT_THAT(log(), HasSubstr(log_line("recv_hci_buffer", c.message)));
        }
    }
}

} // namespace
} // namespace mvgps::test
