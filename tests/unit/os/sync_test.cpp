// Mutexes, signals, threads and delays: the synchronisation services, on simulated time.
#include "os_fixture.h"
#include "host/wdf/faults.h"

namespace mvgps::test
{
namespace
{

using SyncTest = OsTest;

TEST_F(SyncTest, DelayCostsExactlyItsTime)
{
    // 300000 ms overflows a 32-bit count of 100 ns units; the delay must not.
    for (ULONG ms : {1u, 50u, 300000u}) {
        const double start = now_ms();
        OsDelay(ms);
        EXPECT_DOUBLE_EQ(now_ms() - start, ms);
    }
}

VOID NTAPI hold_for_250_ms(PVOID mutex)
{
    OsAcquireMutex(static_cast<OsMutex*>(mutex));
    OsDelay(250);
    OsReleaseMutex(static_cast<OsMutex*>(mutex));
}

// Taking the mutex, trying it and freeing it all wait for the holder to let go.
TEST_F(SyncTest, EveryMutexTakeWaitsForTheHolder)
{
    const auto blocks = live_os_blocks();
    using Take = void (*)(OsMutex**);
    const std::pair<const char*, Take> cases[] = {
        {"acquire", [](OsMutex** m) { OsAcquireMutex(*m); }},
        {"try", [](OsMutex** m) { EXPECT_TRUE(OsTryAcquireMutex(*m)); }},
        {"free", [](OsMutex** m) { OsFreeMutex(m); }},
    };
    for (const auto& [name, take] : cases) {
        SCOPED_TRACE(name);
        OsMutex* mutex = nullptr;
        ASSERT_EQ(OsAllocateMutex(&mutex, "DeviceLock"), OS_SUCCESS);
        PVOID thread = start(hold_for_250_ms, mutex);
        OsDelay(1); // the holder has the mutex by now
        const double began = now_ms();
        take(&mutex);
        EXPECT_DOUBLE_EQ(now_ms() - began, 249);
        join(thread);
        if (mutex != nullptr) {
            OsReleaseMutex(mutex);
            OsFreeMutex(&mutex);
        }
        EXPECT_EQ(mutex, nullptr);
    }
    EXPECT_EQ(live_os_blocks(), blocks);
    EXPECT_THAT(log(), Not(HasSubstr("OS:")));
}

TEST_F(SyncTest, SignalWaitResults)
{
    struct Case {
        const char* name;
        bool set;
        ULONG timeout;
        OS_STATUS result;
        double elapsed_ms;
    };
    const Case cases[] = {
        {"set, no limit", true, 0, OS_SUCCESS, 0},
        {"set, 50 ms", true, 50, OS_SUCCESS, 0},
        {"clear, 50 ms", false, 50, OS_WAIT_TIMEOUT, 50},
        {"clear, longest timeout", false, 214748, OS_WAIT_TIMEOUT, 214748},
        // One millisecond more wraps the 32-bit interval into a time long past.
        {"clear, wrapped timeout", false, 214749, OS_WAIT_TIMEOUT, 0},
    };
    EXPECT_EQ(OS_WAIT_TIMEOUT, 3u); // the value callers compare with
    OsSignal* signal = nullptr;
    ASSERT_EQ(OsAllocateSignal(&signal, nullptr), OS_SUCCESS);
    EXPECT_EQ(signal->State, OS_SIGNAL_CLEAR);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        c.set ? OsSetSignal(signal) : OsClearSignal(signal);
        EXPECT_EQ(signal->State, c.set ? OS_SIGNAL_SET : OS_SIGNAL_CLEAR);
        EXPECT_EQ(KeReadStateEvent(&signal->Event), c.set ? 1 : 0);
        const double start = now_ms();
        // A wait does not consume the signal: a set one stays set.
        for (int round = 0; round < 2; round++) {
            EXPECT_EQ(OsWaitForSignal(signal, c.timeout), c.result);
        }
        EXPECT_DOUBLE_EQ(now_ms() - start, 2 * c.elapsed_ms);
    }
    OsFreeSignal(&signal);
}

// Mutex and signal records share the identifier field: terminated only when the text is
// shorter than 64 bytes.
TEST_F(SyncTest, IdentifiersAreCutAt64Bytes)
{
    const std::string long_name(80, 'n');
    const std::pair<const char*, std::string> cases[] = {
        {nullptr, std::string(64, '\0')},
        {"DeviceAssocFinishSignal", "DeviceAssocFinishSignal" + std::string(41, '\0')},
        {long_name.c_str(), std::string(64, 'n')},
    };
    for (const auto& [name, field] : cases) {
        OsMutex* mutex = nullptr;
        OsSignal* signal = nullptr;
        ASSERT_EQ(OsAllocateMutex(&mutex, name), OS_SUCCESS);
        ASSERT_EQ(OsAllocateSignal(&signal, name), OS_SUCCESS);
        EXPECT_EQ(std::string(mutex->Name, sizeof mutex->Name), field);
        EXPECT_EQ(std::string(signal->Name, sizeof signal->Name), field);
        OsFreeMutex(&mutex);
        OsFreeSignal(&signal);
    }
}

// Commands sent before the mutex exists go out with a null handle; signals are as lenient.
TEST_F(SyncTest, MissingRecordsOnlyLog)
{
    OsAcquireMutex(nullptr);
    OsReleaseMutex(nullptr);
    EXPECT_FALSE(OsTryAcquireMutex(nullptr));
    OsSetSignal(nullptr);
    OsClearSignal(nullptr);
    EXPECT_EQ(OsWaitForSignal(nullptr, 10), OS_NO_SIGNAL);
    EXPECT_THAT(log(), HasSubstr(log_line("OsWaitForSignal", "OS:  Signal is not exist")));
    OsMutex* null_mutex = nullptr;
    OsSignal* null_signal = nullptr;
    for (bool pointer_to_null : {false, true}) {
        kernel::clear_debug_output();
        OsFreeMutex(pointer_to_null ? &null_mutex : nullptr);
        OsFreeSignal(pointer_to_null ? &null_signal : nullptr);
        EXPECT_THAT(log(), HasSubstr(log_line("OsFreeMutex",
                                              "OS:  fail cause ppMutex has not allocate before")));
        EXPECT_THAT(log(), HasSubstr(log_line(
                               "OsFreeSignal",
                               "OS:  Free Signal fail cause signal has not allocate before")));
    }
}

// The identifier is logged when there is one.
TEST_F(SyncTest, FailedAllocation)
{
    for (const char* name : {"hci_wr_mutex", static_cast<const char*>(nullptr)}) {
        kernel::clear_debug_output();
        kernel::add_pool_fault(kernel::fail_nth(1, OS_POOL_TAG));
        OsMutex* mutex = nullptr;
        EXPECT_EQ(OsAllocateMutex(&mutex, name), OS_NO_MEMORY);
        EXPECT_EQ(mutex, nullptr);
        kernel::add_pool_fault(kernel::fail_nth(1, OS_POOL_TAG));
        OsSignal stale{};
        OsSignal* signal = &stale;
        EXPECT_EQ(OsAllocateSignal(&signal, name), OS_NO_MEMORY);
        EXPECT_EQ(signal, nullptr);
        const std::string expected[] = {
            log_line("OsAllocateMutex", "OS:     Allocat Mutex Error"),
            log_line("OsAllocateMutex", "OS:  Mutex Id String is hci_wr_mutex"),
            log_line("OsAllocateSignal", "OS:     Allocat Signal Error"),
            log_line("OsAllocateSignal", "OS:  Signal Id String is hci_wr_mutex"),
        };
        for (int i = 0; i < 4; i += name != nullptr ? 1 : 2) {
            EXPECT_THAT(log(), HasSubstr(expected[i]));
        }
        EXPECT_EQ(log().find("Id String") != std::string::npos, name != nullptr);
    }
}

// The block stays with the caller, whose teardown frees it; until then it locks nothing.
TEST_F(SyncTest, FailedWaitLockKeepsTheBlock)
{
    const auto blocks = live_os_blocks();
    wdf::faults::add(wdf::faults::fail_nth_create(1, wdf::Kind::WaitLock));
    OsMutex* mutex = nullptr;
    EXPECT_EQ(OsAllocateMutex(&mutex, "hci_wr_mutex"), ULONG(STATUS_INSUFFICIENT_RESOURCES));
    wdf::faults::clear();
    ASSERT_NE(mutex, nullptr);
    EXPECT_EQ(live_os_blocks(), blocks + 1);
    EXPECT_THAT(log(),
                HasSubstr(log_line("OsAllocateMutex", "OS:    OsAllocateMutex failed 0xc000009a")));
    OsAcquireMutex(mutex);
    OsReleaseMutex(mutex);
    OsFreeMutex(&mutex);
    EXPECT_EQ(mutex, nullptr);
    EXPECT_EQ(live_os_blocks(), blocks);
}

} // namespace
} // namespace mvgps::test
