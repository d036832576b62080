// Client reads: each pending read gets one frame behind the 16-byte header, oldest first;
// frames that find no reader are dropped.
#include "data_path_fixture.h"

namespace mvgps::test
{
namespace
{

// Status frames (pid 50) are never queued: the reads wait for the sentences. The first three
// come in one run of bytes, so in one read; the last wakes the processing thread should a
// frame queued during a pass have missed its wake-up.
TEST_F(DataPath, PendingReadsGetTheFramesInArrivalOrder)
{
    start_with_peer();
    keep_alive();
    std::vector<std::shared_ptr<pnp::PendingIo>> reads;
    for (int i = 0; i < 4; i++) {
        reads.push_back(read());
    }
    run_for(100 * kMillisecond);
    peer().send_raw(sim::testkit::cat({sim::chip::encode(sentence_frame(0)),
                                       sim::chip::encode(sentence_frame(1)),
                                       sim::chip::encode(sentence_frame(2))}));
    run_for(30 * kMillisecond);
    peer().send(sentence_frame(3));
    for (int i = 0; i < 4; i++) {
        ASSERT_TRUE(reads[i]->wait(now() + 100 * kMillisecond));
        EXPECT_EQ(read_frame(*reads[i]), sim::chip::encode(sentence_frame(i))) << i;
    }
}

// The awaited acknowledgement of the option command is queued for readers too: 14 bytes,
// 30 with the header. A read that cannot hold them still takes the frame.
TEST_F(DataPath, ReadBufferMustHoldHeaderAndFrame)
{
    start_with_chip();
    const std::size_t record = READ_COMPLETION_HEADER_SIZE + 14;
    for (std::size_t size : {record, record - 1, std::size_t{1}}) {
        SCOPED_TRACE(size);
        auto pending = read(size);
        ASSERT_EQ(xfer(0x22, 5), 0);
        ASSERT_TRUE(pending->wait(now() + 100 * kMillisecond));
        if (size == record) {
            EXPECT_EQ(read_frame(*pending), ack_frame(0x22, 5));
        } else {
            EXPECT_EQ(pending->status(), STATUS_BUFFER_TOO_SMALL);
            EXPECT_EQ(pending->information(), 0u);
        }
    }
    auto later = read();
    run_for(100 * kMillisecond);
    EXPECT_FALSE(later->done());
}

// A frame queued while a pass runs may wait for the next frame's wake-up; nothing else stays.
TEST_F(DataPath, FramesWithNoReaderAreDropped)
{
    start_with_chip(true);
    run_for(2500 * kMillisecond);
    EXPECT_GE(chip().stats().nmea_sent, 4u);
    EXPECT_LE(peek(ext().ReadDataCount), 1);
    EXPECT_TRUE(logged("STATUS_NO_MORE_ENTRIES!"));
}

} // namespace
} // namespace mvgps::test
