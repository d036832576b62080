// System threads and delays.
#include "os_fixture.h"

namespace mvgps::test
{
namespace
{

using ThreadTest = OsTest;

VOID NTAPI note_context(PVOID context)
{
    *static_cast<int*>(context) += 1;
}

TEST_F(ThreadTest, RunsTheRoutineWithItsContext)
{
    struct Case {
        KPRIORITY asked;
        KPRIORITY kept; // what the thread runs at
    };
    for (const Case& c : {Case{0, 8}, Case{12, 12}}) {
        int runs = 0;
        PVOID thread = nullptr;
        ASSERT_EQ(OsCreateThread(note_context, &runs, c.asked, &thread), STATUS_SUCCESS);
        ASSERT_NE(thread, nullptr);
        // The caller owns a reference: the object outlives the thread and can be waited on.
        EXPECT_EQ(KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr),
                  STATUS_SUCCESS);
        EXPECT_EQ(runs, 1);
        EXPECT_EQ(KeSetPriorityThread(static_cast<PKTHREAD>(thread), 8), c.kept);
        ObDereferenceObject(thread);
    }
}

TEST_F(ThreadTest, DelayCostsExactlyItsTime)
{
    // 300000 ms overflows a 32-bit count of 100 ns units; the delay must not.
    for (ULONG ms : {1u, 50u, 300000u}) {
        const double start = now_ms();
        OsDelay(ms);
        EXPECT_DOUBLE_EQ(now_ms() - start, ms);
    }
}

} // namespace
} // namespace mvgps::test
