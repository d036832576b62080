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
