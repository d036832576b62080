// Platform-service tests run on a simulated scheduler, so waits and delays cost virtual time.
// The link tests build on the same fixture.
#pragma once

#include <gmock/gmock.h>

#include <cstdio>
#include <string>

#include "host/kernel/kernel.h"
#include "os/os.h"
#include "host/sched/sched.h"

namespace mvgps::test
{

using testing::HasSubstr;
using testing::Not;

// One debug-log line as the driver prints it, less the source line number.
inline std::string log_line(const char* function, const std::string& message)
{
    char prefix[64];
    std::snprintf(prefix, sizeof prefix, "%-40.39s  ", function);
    return prefix + message;
}

class OsTest : public testing::Test
{
  protected:
    OsTest() : sched_(sched::make_simulated(sched::seed_from_env())) {}

    void SetUp() override { kernel::clear_debug_output(); }
    void TearDown() override { kernel::clear_pool_faults(); }

    static std::string log() { return kernel::debug_output(); }
    // Virtual time in milliseconds since the scheduler started.
    double now_ms() { return static_cast<double>(sched_.get().now()) / sched::kMillisecond; }
    static std::uint64_t live_os_blocks() { return kernel::pool_stats(OS_POOL_TAG).live_blocks; }
    static PVOID start(PKSTART_ROUTINE routine, PVOID context)
    {
        PVOID thread = nullptr;
        EXPECT_EQ(OsCreateThread(routine, context, 0, &thread), STATUS_SUCCESS);
        return thread;
    }
    static void join(PVOID thread)
    {
        EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr),
                  STATUS_SUCCESS);
        ObDereferenceObject(thread);
    }

    sched::Install sched_;
};

} // namespace mvgps::test
