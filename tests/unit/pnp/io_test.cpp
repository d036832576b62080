#include "probe_fixture.h"

namespace mvgps::pnp::test
{
namespace
{

class IoTest : public ProbeTest
{
  protected:
    void SetUp() override
    {
        ProbeTest::SetUp();
        stack_ = make_stack();
        ASSERT_EQ(stack_->bring_up(), STATUS_SUCCESS);
        handle_ = open();
    }

  public:
    std::unique_ptr<DeviceStack> stack_;
    std::unique_ptr<ClientHandle> handle_;
};

// The caller gets back only the Information bytes (the probe fills the rest of the system
// buffer with 0xFF), and a METHOD_NEITHER request gives the driver no buffers through the
// framework.
TEST_F(IoTest, BufferedRequestsReturnInformationBytes)
{
    struct Case {
        ULONG code;
        std::vector<std::uint8_t> in;
        std::size_t out_length;
        NTSTATUS status;
        std::vector<std::uint8_t> out;
    };
    const Case cases[] = {
        {IOCTL_PROBE_ECHO, {1, 2, 3, 4}, 4, STATUS_SUCCESS, {2, 3, 4, 5}},
        {IOCTL_PROBE_ECHO, {1, 2}, 5, STATUS_SUCCESS, {2, 3, 0, 0, 0}},
        {IOCTL_PROBE_ECHO, {5, 6, 7}, 2, STATUS_BUFFER_TOO_SMALL, {0, 0}},
        {IOCTL_PROBE_ECHO, {}, 4, STATUS_BUFFER_TOO_SMALL, {0, 0, 0, 0}},
        {IOCTL_PROBE_ECHO_NEITHER, {1, 2}, 2, STATUS_INVALID_DEVICE_REQUEST, {0, 0}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << std::hex << c.code << " " << c.in.size());
        std::vector<std::uint8_t> out(c.out_length, 0);
        ULONG_PTR returned = 99;
        EXPECT_EQ(handle_->ioctl(c.code, c.in, out, &returned), c.status);
        EXPECT_EQ(out, c.out);
        EXPECT_EQ(returned, NT_SUCCESS(c.status) ? c.in.size() : 0u);
    }
}

TEST_F(IoTest, ManualQueueHoldsRequestsUntilRetrievedAndEmptyReportsNoMoreEntries)
{
    EXPECT_EQ(handle_->ioctl(IOCTL_PROBE_RETRIEVE, {}, {}), STATUS_NO_MORE_ENTRIES);
    EXPECT_EQ(handle_->ioctl(IOCTL_PROBE_RETRIEVE_RELAY, {}, {}), STATUS_INVALID_DEVICE_STATE)
        << "a parallel queue has nothing to retrieve";
    auto parked = handle_->ioctl_async(IOCTL_PROBE_PARK, {}, 0);
    EXPECT_FALSE(parked->done()) << "a request in a manual queue waits there";
    EXPECT_EQ(handle_->ioctl(IOCTL_PROBE_RETRIEVE, {}, {}), STATUS_SUCCESS);
    ASSERT_TRUE(parked->done());
    EXPECT_EQ(parked->status(), STATUS_SUCCESS);
}

// Forwarded under a spin lock, a request reaches a queue that asked for PASSIVE_LEVEL from a
// framework thread (the pageable callback is content); without the request it would run
// inline at DISPATCH_LEVEL, which the verifier tests show stopping the run.
TEST_F(IoTest, PassiveExecutionLevelMovesCallbacksOffARaisedCaller)
{
    handle_.reset();
    stack_.reset();
    stack_ = make_stack({{u"RelayPassive", 1}});
    ASSERT_EQ(stack_->bring_up(), STATUS_SUCCESS);
    handle_ = open();
    EXPECT_EQ(handle_->ioctl(IOCTL_PROBE_RELAY_RAISED, {}, {}), STATUS_SUCCESS);
}

} // namespace
} // namespace mvgps::pnp::test
