// The receive path: classification of received bytes, the final checks of a complete frame,
// and reassembly of frames from reads cut anywhere, resynchronisation and what is dropped.
#include "link_fixture.h"

namespace mvgps::test
{
namespace
{

Bytes times(const Bytes& b, int n)
{
    Bytes all;
    for (int i = 0; i < n; i++) {
        all.insert(all.end(), b.begin(), b.end());
    }
    return all;
}

class ReceiveTest : public LinkTest
{
  protected:
    // Hands the stream over in reads ending at the given offsets (empty reads are skipped, as
    // the read thread never passes them on).
    void feed(const Bytes& stream, std::vector<std::size_t> ends)
    {
        std::size_t from = 0;
        ends.push_back(stream.size());
        for (std::size_t end : ends) {
            if (end > from) {
                recv(Bytes(stream.begin() + from, stream.begin() + end));
            }
            from = end;
        }
    }
};

TEST_F(ReceiveTest, ClassifiesTheStartOfABuffer)
{
    struct Case {
        const char* bytes;
        LONG status;
        USHORT total; // written only for PKT_FULL
    };
    // Boundaries of the identifier and length checks; the reassembly tests cover the rest.
    const Case cases[] = {
        {"", PKT_SHORT, 0},
        {"A5 00 02 32 0E A5 FF FF", PKT_FULL, 6}, // pid 50, sid 14
        {"A5 00 02 FF 00 A5", PKT_FULL, 6},       // pid 255
        {"A5 00 02 33 00 A5", PKT_IPSID, 0},      // pid 51
        {"A5 00 02 FE 00 A5", PKT_IPSID, 0},
        {"A5 00 02 01 0F A5", PKT_IPSID, 0}, // sid 15
        {"A5 70 02 33 00 A5", PKT_IPSID, 0}, // identifiers before reserved bits
        {"A5 C0 02 01 01 A5", PKT_LARGE, 0},
        {"A5 8F FF 01 01 A5", PKT_PART, 0},
        {"A5 80 02 01 01 00 00 A5", PKT_FULL, 8},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bytes);
        const Bytes bytes = hex(c.bytes);
        USHORT total = 0xBEEF;
        EXPECT_EQ(check_pkt_status(bytes.data(), static_cast<USHORT>(bytes.size()), &total),
                  c.status);
        EXPECT_EQ(total, c.status == PKT_FULL ? c.total : 0xBEEF);
    }
}

TEST_F(ReceiveTest, ParseOnePacketChecksLengthAndMarks)
{
    struct Case {
        const char* frame;
        const char* message; // null when delivered
        USHORT len = 0;      // 0: the whole frame
    };
    const Case cases[] = {
        {"A5 00 05 01 02 00 01 10 A5", nullptr},
        {"A5 80 02 FF 02 90 E5 A5", nullptr},
        {"A5 00 05 01 02 00 01 10 A5", "length: 8, pkt_len: 9", 8},
        {"A5 00", "length: 2, pkt_len: 6"},
        // One wrong mark passes: the receive scan has checked both already.
        {"00 00 05 01 02 00 01 10 A5", nullptr},
        {"A5 00 05 01 02 00 01 10 00", nullptr},
        {"00 00 05 01 02 00 01 10 00", "packet feature code error!"},
    };
    recorder_.result = 7;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.frame);
        const Bytes frame = hex(c.frame);
        const USHORT len = c.len != 0 ? c.len : static_cast<USHORT>(frame.size());
        recorder_.frames.clear();
        kernel::clear_debug_output();
        EXPECT_EQ(parse_one_packet(frame.data(), len, &recorder_), c.message ? -1 : 7);
        if (c.message != nullptr) {
            EXPECT_THAT(recorder_.frames, testing::IsEmpty());
            EXPECT_THAT(log(), HasSubstr(log_line("parse_one_packet", c.message)));
        } else {
            EXPECT_THAT(recorder_.frames, ElementsAre(frame));
            EXPECT_EQ(recorder_.crc_flags.back(), frame[1] >> 7);
        }
    }
    // Without a handler a good frame is accepted and goes nowhere.
    set_pkt_parse_callback(nullptr);
    EXPECT_EQ(parse_one_packet(hex(cases[0].frame).data(), 9, &recorder_), 0);
}

// Frames as the chip sends them: mixed sizes, with and without CRC, padded, some after line
// noise or more padding; payloads hold sync and padding values too.
TEST_F(ReceiveTest, EveryCutYieldsEveryFrame)
{
    const Bytes tricky{0xA5, 0xFF, 0xA5, 0xA5, 0x00, 0xFF, 0xFF, 0x80, 0x02};
    const std::tuple<Bytes, std::uint8_t, std::uint8_t, std::uint8_t, Bytes> sent[] = {
        {{0x00, 0x13, 0x37, 0x80}, 1, 0x32, 0, Bytes(4, 0x11)},
        {Bytes(20, 0xFF), 0, 0xFF, 3, {}},
        {{}, 1, 0x05, 1, tricky},
        {{0x24, 0x47, 0x50}, 1, 0x04, 0, {}},
        {{}, 0, 0x20, 14, Bytes(70, 0x5A)},
    };
    std::vector<Bytes> frames;
    Bytes stream;
    for (const auto& [before, crc, pid, sid, payload] : sent) {
        frames.push_back(tx_frame(crc, pid, sid, payload));
        stream = concat({stream, before, tx_frame(crc, pid, sid, payload, true)});
    }
    for (std::size_t i = 0; i <= stream.size(); i++) {
        for (std::size_t j = i; j <= stream.size(); j++) {
            restart();
            feed(stream, {i, j});
            ASSERT_EQ(recorder_.frames, frames) << "reads end at " << i << " and " << j;
            ASSERT_EQ(circ_.circ_count, 0);
        }
    }
    EXPECT_EQ(cnt_large + cnt_ipsid + cnt_no_tail, 0u);
}

// Wherever the read is cut, a CRC or tail error costs the bad frame and nothing else.
TEST_F(ReceiveTest, BadFrameIsDroppedAlone)
{
    const Bytes before = tx_frame(1, 0x01, 0x01, {0x11, 0x22});
    const Bytes after = tx_frame(0, 0x03, 0x03, {0x33});
    Bytes bad_crc = tx_frame(1, 0x07, 0x08, {0x44, 0x55});
    bad_crc[8] ^= 0x40;
    Bytes bad_tail = tx_frame(0, 0x07, 0x08, {0x44, 0x55});
    bad_tail.back() = 0x00;
    const std::pair<Bytes, std::string> cases[] = {
        {bad_crc, log_line("parse_one_packet", "pid 07, sid 08, CRC error")},
        {bad_tail, log_line("process_buff", "PKT_NO_TAIL")},
    };
    for (const auto& [bad, message] : cases) {
        const Bytes stream = concat({before, bad, after});
        for (std::size_t cut = 0; cut <= stream.size(); cut++) {
            restart();
            feed(stream, {cut});
            ASSERT_THAT(recorder_.frames, ElementsAre(before, after)) << "read ends at " << cut;
        }
        EXPECT_THAT(log(), HasSubstr(message)); // the last run was one read
    }
}

TEST_F(ReceiveTest, GiveUpAfterFourBadFramesOfOneKind)
{
    const Bytes no_tail = hex("A5 00 02 01 01 00");
    const Bytes ipsid = hex("A5 00 02 33 00 00");
    const Bytes large = hex("A5 10 02 01 01 00");
    Bytes crc_error = tx_frame(1, 0x01, 0x01);
    crc_error[5] ^= 1;
    const Bytes good = tx_frame(1, 0x02, 0x02, {0x01, 0x02, 0x03}, true);
    struct Case {
        const char* name;
        Bytes stream;
        LONG result;
        std::size_t delivered;
    };
    const Case cases[] = {
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

TEST_F(ReceiveTest, ZeroBytesDoNothing)
{
    cnt_no_tail = 4; // over the limit, yet an empty scan gives up nothing
    EXPECT_EQ(scan({}), 0);
    EXPECT_EQ(cnt_no_tail, 4u);
    cnt_no_tail = 0;
    recv({});
    EXPECT_TRUE(recorder_.frames.empty());
    EXPECT_EQ(circ_.circ_count, 0);
}

// What the carry-over buffer loses, by design or because it is full.
TEST_F(ReceiveTest, CarryOverLosses)
{
    const Bytes a = tx_frame(1, 0x01, 0x01, {0x11});
    const Bytes b = tx_frame(0, 0x02, 0x02, {0x22});
    const Bytes huge = tx_frame(1, 0x05, 0x00, Bytes(4091, 0x5A)); // 4101 bytes
    const Bytes huge_a = concat({huge, a});
    struct Case {
        const char* name;
        Bytes stream;
        std::vector<std::size_t> cuts; // where one read ends and the next begins
        std::vector<Bytes> delivered;
        const char* message;
    };
    const Case cases[] = {
        // Bytes after a sync byte and padding are kept, with the header they no longer have;
        // the frame they hold comes out one read late.
        {"padding after a sync byte",
         concat({hex("A5 FF FF FF FF"), a, b}),
         {2, 16},
         {a, b},
         "Partial pkt in circ after copying, l 11, circ_pn 4101"},
        // A held start that does not begin with a sync byte takes the next read with it.
        {"held bytes without sync",
         concat({hex("A5 FF FF FF FF 01 02"), a, b}),
         {2, 7, 18},
         {b},
         "no hci preamble code in circ"},
        {"frame longer than the area",
         huge_a,
         {2048, 4096},
         {a},
         "[PKT_PART] in circ, discard it, l 4101, circ_pn 4101, len 11, orig_len 16"},
        {"frame longer than the area, in one read", huge_a, {}, {huge, a}, ""},
        {"start longer than the area", huge_a, {4100}, {a}, ""},
        // Five bytes announcing a four-byte frame have nothing more to take.
        {"start as long as its frame",
         concat({hex("A5 00 00 01 01"), a}),
         {5},
         {a},
         "[PKT_SHORT] in circ, discard it, l 5, circ_pn 4"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        restart();
        feed(c.stream, c.cuts);
        EXPECT_EQ(recorder_.frames, c.delivered);
        EXPECT_THAT(log(), HasSubstr(c.message));
    }
}

// What the receive path tells an operator about the frames it joins or drops: per stream and
// cuts, the lines printed in order, all in the error category (and nothing without it).
TEST_F(ReceiveTest, LogsWhatBecomesOfEachFrame)
{
    const Bytes frame = tx_frame(1, 0x05, 1, {0x11, 0x22}); // 12 bytes
    Bytes bad_tail = frame;
    bad_tail.back() = 0;
    Bytes bad_crc = frame;
    bad_crc[9] ^= 1;
    struct Case {
        const char* name;
        Bytes stream;
        std::vector<std::size_t> cuts;
        std::size_t delivered;
        std::vector<std::pair<const char*, const char*>> lines; // routine, text
    };
    const Case cases[] = {
        {"header split",
         frame,
         {3},
         1,
         {{"recv_hci_buffer", "-e, part of previous hci pkt, l 3, len 9"},
          {"recv_hci_buffer", "move 7 bytes to circ, pid 05, sid 01, circ_pn 12"},
          {"recv_hci_buffer", "Found full packet in circ"},
          {"recv_hci_buffer", "-x, part"}}},
        {"three reads",
         frame,
         {8, 10},
         1,
         {{"recv_hci_buffer", "move 2 bytes to circ, pid 05, sid 01, circ_pn 12"},
          {"recv_hci_buffer", "Partial pkt in circ after copying, l 10, circ_pn 12"},
          {"recv_hci_buffer", "-e, part of previous hci pkt, l 10, len 2"},
          {"recv_hci_buffer", "Found full packet in circ"}}},
        {"bad tail when joined",
         concat({bad_tail, frame}),
         {8},
         1,
         {{"recv_hci_buffer", "-e, part of previous hci pkt, l 8, len 16"},
          {"recv_hci_buffer", "[PKT_NO_TAIL] in circ, discard it, l 12, circ_pn 12, len 12, "
                              "orig_len 16, pid 05, sid 01"},
          {"recv_hci_buffer", "-x, part"}}},
        {"bad CRC when joined",
         bad_crc,
         {6},
         0,
         {{"recv_hci_buffer", "Found full packet in circ"},
          {"parse_one_packet", "pid 05, sid 01, CRC error"}}},
        {"bad frames in one read",
         concat({hex("A5 00 02 33 01 A5"), hex("A5 10 02 05 01 A5"), bad_tail, frame}),
         {},
         1,
         {{"process_buff", "PKT_IPSID"},
          {"process_buff", "PKT_LARGE"},
          {"process_buff", "PKT_NO_TAIL"}}},
        // Dropping a bogus start leaves bytes that are no frame start; the next read goes
        // with them.
        {"no sync held",
         concat({hex("A5 FF FF FF 00 02 05"), frame}),
         {2, 7},
         0,
         {{"recv_hci_buffer", "move 2 bytes to circ, pid ff, sid 00, circ_pn 4101"},
          {"recv_hci_buffer", "Partial pkt in circ after copying, l 3, circ_pn 4101"},
          {"recv_hci_buffer", "-e, part of previous hci pkt, l 3, len 12"},
          {"recv_hci_buffer", "no hci preamble code in circ"}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        for (ULONG mask : {DBG_ERROR, ~DBG_ERROR}) {
            restart();
            DebugLogMask = mask;
            feed(c.stream, c.cuts);
            DebugLogMask = DEBUG_LOG_MASK_DEFAULT;
            EXPECT_EQ(recorder_.frames.size(), c.delivered);
            // Each line whole: the next line's prefix, or the end, follows it.
            const std::string text = log() + "\n[MV_GPS]";
            if (mask != DBG_ERROR) {
                EXPECT_EQ(text.find("[MV_GPS]("), std::string::npos) << text;
                continue;
            }
            std::size_t at = 0;
            for (const auto& [routine, message] : c.lines) {
                at = text.find(log_line(routine, message) + "\n[MV_GPS]", at);
                ASSERT_NE(at, std::string::npos) << routine << ": " << message << "\n" << text;
            }
        }
    }
}

} // namespace
} // namespace mvgps::test
