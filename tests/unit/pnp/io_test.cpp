#include "probe_fixture.h"

namespace mvgps::pnp::test
{
namespace
{

using IoTest = ProbeTest;

// Forwarded under a spin lock, a request reaches a queue that asked for PASSIVE_LEVEL from a
// framework thread (the pageable callback is content); without the request it would run
// inline at DISPATCH_LEVEL, which the verifier tests show stopping the run.
TEST_F(IoTest, PassiveExecutionLevelMovesCallbacksOffARaisedCaller)
{
    auto stack = make_stack({{u"RelayPassive", 1}});
    ASSERT_EQ(stack->bring_up(), STATUS_SUCCESS);
    auto handle = open();
    EXPECT_EQ(handle->ioctl(IOCTL_PROBE_RELAY_RAISED, {}, {}), STATUS_SUCCESS);
}

} // namespace
} // namespace mvgps::pnp::test
