// Client reads: each pending read gets one frame behind the 16-byte header, in arrival order;
// frames that find no reader are dropped.
#include "data_path_fixture.h"

#include <algorithm>

namespace mvgps::test
{
namespace
{

std::vector<std::string> sentences(const std::string& text)
{
    std::vector<std::string> out;
    for (std::size_t at = 0, end; (end = text.find("\r\n", at)) != std::string::npos;
         at = end + 2) {
        out.push_back(text.substr(at, end + 2 - at));
    }
    return out;
}

std::string payload_text(const Bytes& frame)
{
    // Header 7 bytes, CRC 2 and tail 1 around the sentence.
    return std::string(frame.begin() + 7, frame.end() - 3);
}

// The capture plays in a loop, so each read holds the sentence after the previous read's.
TEST_F(DataPath, PendingReadsGetTheFramesInArrivalOrder)
{
    start_with_chip(talking_chip());
    std::vector<std::shared_ptr<pnp::PendingIo>> reads;
    for (int i = 0; i < 4; i++) {
        reads.push_back(read(512));
    }
    ASSERT_TRUE(wait_until([&] { return reads.back()->done(); }, 5 * kSecond));

    std::vector<std::string> expected = sentences(kTwoEpochs);
    std::size_t next = expected.size();
    for (std::size_t i = 0; i < reads.size(); i++) {
        ASSERT_EQ(reads[i]->status(), STATUS_SUCCESS);
        ReadRecord r = parse_read(reads[i]->output(), reads[i]->information());
        EXPECT_EQ(r.type, READ_COMPLETION_TYPE);
        EXPECT_EQ(r.length, r.frame.size());
        EXPECT_EQ(r.one, 1u);
        EXPECT_EQ(r.two, 2u);
        std::string text = payload_text(r.frame);
        if (next == expected.size()) {
            next = std::find(expected.begin(), expected.end(), text) - expected.begin();
            ASSERT_LT(next, expected.size()) << text;
        }
        EXPECT_EQ(text, expected[next]) << i;
        next = (next + 1) % expected.size();
    }
    EXPECT_EQ(peek(ext().HciPacketEventCount), 4);
}

struct SizeCase {
    const char* name;
    int slack;
    NTSTATUS status;
    friend void PrintTo(const SizeCase& c, std::ostream* os) { *os << c.name; }
};

class ReadSizes : public DataPath, public testing::WithParamInterface<SizeCase>
{
};

// The answer to the option command is a 14-byte frame: 30 bytes with the header.
TEST_P(ReadSizes, BufferMustHoldHeaderAndFrame)
{
    const SizeCase& c = GetParam();
    start_with_chip();
    const std::size_t record = READ_COMPLETION_HEADER_SIZE + 14;
    auto pending = read(record + c.slack);
    ASSERT_EQ(xfer(0x22, 5, {1}), 0);
    ASSERT_TRUE(pending->wait(now() + 100 * kMillisecond));
    EXPECT_EQ(pending->status(), c.status);
    EXPECT_EQ(pending->information(), c.status == STATUS_SUCCESS ? record : 0u);
    // The frame was taken by the failed read: a later read does not get it.
    auto later = read(512);
    run_for(100 * kMillisecond);
    EXPECT_FALSE(later->done());
}

INSTANTIATE_TEST_SUITE_P(DataPath, ReadSizes,
                         testing::Values(SizeCase{"exact", 0, STATUS_SUCCESS},
                                         SizeCase{"one_short", -1, STATUS_BUFFER_TOO_SMALL},
                                         SizeCase{"header_only", -14, STATUS_BUFFER_TOO_SMALL},
                                         SizeCase{"tiny", -29, STATUS_BUFFER_TOO_SMALL}),
                         [](const testing::TestParamInfo<SizeCase>& info) {
                             return std::string(info.param.name);
                         });

// One pass over a list of its own: each entry goes to one pending request, in order, and
// what finds no request is dropped in the same pass.
TEST_F(DataPath, OnePassPairsEntriesWithPendingRequests)
{
    start_with_peer();
    auto pending = read(512);
    run_for(kMillisecond);
    LIST_ENTRY list;
    InitializeListHead(&list);
    volatile LONG count = 0;
    volatile LONG waiting = 1;
    const FdoExtension& e = ext();
    auto pass = [&] {
        return ops().ProcessReadQueue(&ext(), 4, e.ReadEventQueue, &waiting, &list, &count);
    };

    EXPECT_EQ(pass(), STATUS_SUCCESS);
    EXPECT_FALSE(pending->done());

    for (std::uint8_t sid = 1; sid <= 3; sid++) {
        Bytes frame = sim::chip::encode(Frame{0x31, sid, true, {sid}});
        PacketEntry* entry = PacketEntryCreate(frame.data(), static_cast<ULONG>(frame.size()));
        ASSERT_NE(entry, nullptr);
        InsertTailList(&list, &entry->ListEntry);
        count = count + 1;
    }
    EXPECT_EQ(pass(), STATUS_PENDING);
    ASSERT_TRUE(pending->wait(now() + 10 * kMillisecond));
    EXPECT_EQ(parse_read(pending->output(), pending->information()).frame[4], 1);
    EXPECT_TRUE(IsListEmpty(&list));
    EXPECT_EQ(count, 0);
    EXPECT_EQ(waiting, -2);
}

// A frame queued while a pass runs may wait for the next frame's wake-up; nothing else stays.
TEST_F(DataPath, FramesWithNoReaderAreDropped)
{
    start_with_chip(talking_chip());
    run_for(2500 * kMillisecond);
    EXPECT_GE(chip().stats().nmea_sent, 4u);
    EXPECT_LE(peek(ext().ReadDataCount), 1);
    EXPECT_NE(log().find("STATUS_NO_MORE_ENTRIES!"), std::string::npos);
}

} // namespace
} // namespace mvgps::test
