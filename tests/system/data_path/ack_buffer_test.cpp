// The copy of an acknowledgement is bounded by the size device set-up gave AckBuffer, not by
// the size the driver would allocate: a smaller buffer keeps the start of the answer, where
// the sender finds err_status, and nothing past it is written.
#include "data_path_fixture.h"

namespace mvgps::test
{
namespace
{

TEST_F(DataPath, AcknowledgementIsCutAtTheAllocatedSize)
{
    start_with_chip();
    constexpr USHORT kSize = 12;
    RtlFillMemory(ext().AckBuffer, FDO_ACK_BUFFER_SIZE, 0xEE);
    ext().AckBufferSize = kSize;
    EXPECT_EQ(xfer(0x22, 5), 0);
    const Bytes answer = ack_frame(0x22, 5);
    ASSERT_GT(answer.size(), kSize);
    EXPECT_EQ(ext().AckLength, kSize);
    EXPECT_EQ(Bytes(ext().AckBuffer, ext().AckBuffer + answer.size()),
              sim::testkit::cat({Bytes(answer.begin(), answer.begin() + kSize),
                                 Bytes(answer.size() - kSize, 0xEE)}));
}

} // namespace
} // namespace mvgps::test
