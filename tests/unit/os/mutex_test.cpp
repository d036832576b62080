// Mutexes: framework wait locks behind the platform calls, null tolerance and failures.
#include "os_fixture.h"
#include "wdf/faults.h"

namespace mvgps::test
{
namespace
{

using testing::HasSubstr;
using testing::Not;

class MutexTest : public OsTest
{
  protected:
    void TearDown() override
    {
        wdf::faults::clear();
        OsTest::TearDown();
    }
};

TEST_F(MutexTest, AllocateUseFree)
{
    const auto before = kernel::pool_stats(OS_POOL_TAG);
    OsMutex* mutex = nullptr;
    ASSERT_EQ(OsAllocateMutex(&mutex, "hci_wr_mutex"), OS_SUCCESS);
    ASSERT_NE(mutex, nullptr);
    EXPECT_STREQ(mutex->Name, "hci_wr_mutex");
    EXPECT_EQ(kernel::pool_stats(OS_POOL_TAG).live_bytes, before.live_bytes + 72);

    OsAcquireMutex(mutex);
    OsReleaseMutex(mutex);
    ASSERT_TRUE(OsTryAcquireMutex(mutex));
    OsReleaseMutex(mutex);

    OsFreeMutex(&mutex);
    EXPECT_EQ(mutex, nullptr);
    EXPECT_EQ(kernel::pool_stats(OS_POOL_TAG).live_blocks, before.live_blocks);
    EXPECT_THAT(log(), Not(HasSubstr("OS:")));
}

// Commands sent before the mutex exists go out with a null handle.
TEST_F(MutexTest, NullMutexIsTolerated)
{
    OsAcquireMutex(nullptr);
    OsReleaseMutex(nullptr);
    EXPECT_FALSE(OsTryAcquireMutex(nullptr));
    OsMutex* null_mutex = nullptr;
    for (OsMutex** argument : {static_cast<OsMutex**>(nullptr), &null_mutex}) {
        kernel::clear_debug_output();
        OsFreeMutex(argument);
        EXPECT_THAT(log(), HasSubstr(os_log_line(
                               "OsFreeMutex", "OS:  fail cause ppMutex has not allocate before")));
    }
}

TEST_F(MutexTest, FailedAllocation)
{
    kernel::add_pool_fault(kernel::fail_nth(1, OS_POOL_TAG));
    OsMutex* mutex = nullptr;
    EXPECT_EQ(OsAllocateMutex(&mutex, "hci_wr_mutex"), OS_NO_MEMORY);
    EXPECT_EQ(mutex, nullptr);
    EXPECT_THAT(log(), HasSubstr(os_log_line("OsAllocateMutex", "OS:     Allocat Mutex Error")));
    EXPECT_THAT(log(),
                HasSubstr(os_log_line("OsAllocateMutex", "OS:  Mutex Id String is hci_wr_mutex")));
}

// The block stays with the caller, whose teardown frees it.
TEST_F(MutexTest, FailedWaitLockKeepsTheBlock)
{
    const auto blocks = live_os_blocks();
    wdf::faults::add(wdf::faults::fail_nth_create(1, wdf::Kind::WaitLock));
    OsMutex* mutex = nullptr;
    EXPECT_EQ(OsAllocateMutex(&mutex, "hci_wr_mutex"), ULONG(STATUS_INSUFFICIENT_RESOURCES));
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(live_os_blocks(), blocks + 1);
    EXPECT_THAT(log(), HasSubstr(os_log_line("OsAllocateMutex",
                                             "OS:    OsAllocateMutex failed 0xc000009a")));
    OsFreeMemory(reinterpret_cast<PVOID*>(&mutex));
    EXPECT_EQ(live_os_blocks(), blocks);
}

struct Holder {
    OsMutex* mutex;
    ULONG hold_ms;
};

VOID NTAPI hold_for_a_while(PVOID context)
{
    auto* holder = static_cast<Holder*>(context);
    OsAcquireMutex(holder->mutex);
    OsDelay(holder->hold_ms);
    OsReleaseMutex(holder->mutex);
}

// Taking the mutex, trying it and freeing it all wait for the holder to let go.
TEST_F(MutexTest, EveryTakeWaitsForTheHolder)
{
    struct Case {
        const char* name;
        void (*take)(OsMutex*& mutex);
    };
    const Case cases[] = {
        {"acquire",
         [](OsMutex*& m) {
             OsAcquireMutex(m);
             OsReleaseMutex(m);
         }},
        {"try",
         [](OsMutex*& m) {
             EXPECT_TRUE(OsTryAcquireMutex(m));
             OsReleaseMutex(m);
         }},
        {"free",
         [](OsMutex*& m) {
             OsFreeMutex(&m);
             EXPECT_EQ(m, nullptr);
         }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Holder holder{nullptr, 250};
        ASSERT_EQ(OsAllocateMutex(&holder.mutex, "DeviceLock"), OS_SUCCESS);
        PVOID thread = nullptr;
        ASSERT_EQ(OsCreateThread(hold_for_a_while, &holder, 0, &thread), STATUS_SUCCESS);
        OsDelay(1); // the holder has the mutex by now
        const double start = now_ms();
        OsMutex* mutex = holder.mutex;
        c.take(mutex);
        EXPECT_DOUBLE_EQ(now_ms() - start, 249);
        KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
        ObDereferenceObject(thread);
        if (mutex != nullptr) {
            OsFreeMutex(&mutex);
        }
    }
}

} // namespace
} // namespace mvgps::test
