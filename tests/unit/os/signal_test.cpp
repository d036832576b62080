// Signals: state, waits with and without a limit, names, and release on free.
#include <cstring>

#include "os_fixture.h"

namespace mvgps::test
{
namespace
{

using testing::HasSubstr;
using testing::Not;

using SignalTest = OsTest;

TEST_F(SignalTest, StateMirrorsTheEvent)
{
    OsSignal* signal = nullptr;
    ASSERT_EQ(OsAllocateSignal(&signal, "DataFinishSignal"), OS_SUCCESS);
    EXPECT_EQ(kernel::pool_stats(OS_POOL_TAG).live_bytes % 96, 0u);
    EXPECT_STREQ(signal->Name, "DataFinishSignal");
    EXPECT_EQ(signal->State, OS_SIGNAL_CLEAR);
    EXPECT_EQ(KeReadStateEvent(&signal->Event), 0);

    OsSetSignal(signal);
    EXPECT_EQ(signal->State, OS_SIGNAL_SET);
    EXPECT_EQ(KeReadStateEvent(&signal->Event), 1);

    OsClearSignal(signal);
    EXPECT_EQ(signal->State, OS_SIGNAL_CLEAR);
    EXPECT_EQ(KeReadStateEvent(&signal->Event), 0);

    OsFreeSignal(&signal);
    EXPECT_EQ(signal, nullptr);
}

TEST_F(SignalTest, WaitResults)
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
    OsSignal* signal = nullptr;
    ASSERT_EQ(OsAllocateSignal(&signal, nullptr), OS_SUCCESS);
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        c.set ? OsSetSignal(signal) : OsClearSignal(signal);
        const double start = now_ms();
        // A wait does not consume the signal: a set one stays set.
        for (int round = 0; round < 2; round++) {
            EXPECT_EQ(OsWaitForSignal(signal, c.timeout), c.result);
        }
        EXPECT_DOUBLE_EQ(now_ms() - start, 2 * c.elapsed_ms);
    }
    OsFreeSignal(&signal);
}

struct Setter {
    OsSignal* signal;
    ULONG delay_ms;
};

VOID NTAPI set_later(PVOID context)
{
    auto* setter = static_cast<Setter*>(context);
    OsDelay(setter->delay_ms);
    OsSetSignal(setter->signal);
}

TEST_F(SignalTest, WaitWithoutLimitEndsWhenSet)
{
    OsSignal* signal = nullptr;
    ASSERT_EQ(OsAllocateSignal(&signal, nullptr), OS_SUCCESS);
    Setter setter{signal, 600000};
    PVOID thread = nullptr;
    ASSERT_EQ(OsCreateThread(set_later, &setter, 0, &thread), STATUS_SUCCESS);
    const double start = now_ms();
    EXPECT_EQ(OsWaitForSignal(signal, 0), OS_SUCCESS);
    EXPECT_DOUBLE_EQ(now_ms() - start, 600000);
    KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
    ObDereferenceObject(thread);
    OsFreeSignal(&signal);
}

struct Waiter {
    OsSignal* signal;
    OS_STATUS result = 99;
};

VOID NTAPI wait_for(PVOID context)
{
    auto* waiter = static_cast<Waiter*>(context);
    waiter->result = OsWaitForSignal(waiter->signal, 0);
}

TEST_F(SignalTest, FreeReleasesAWaiter)
{
    const auto blocks = live_os_blocks();
    Waiter waiter{};
    ASSERT_EQ(OsAllocateSignal(&waiter.signal, "Threadread_FinishSignal"), OS_SUCCESS);
    OsSignal* signal = waiter.signal;
    PVOID thread = nullptr;
    ASSERT_EQ(OsCreateThread(wait_for, &waiter, 0, &thread), STATUS_SUCCESS);
    OsDelay(10); // the waiter is blocked by now
    OsFreeSignal(&signal);
    EXPECT_EQ(signal, nullptr);
    KeWaitForSingleObject(thread, Executive, KernelMode, FALSE, nullptr);
    ObDereferenceObject(thread);
    EXPECT_EQ(waiter.result, OS_SUCCESS);
    EXPECT_EQ(live_os_blocks(), blocks);
}

TEST_F(SignalTest, NamesAreCutAt64Bytes)
{
    const std::string long_name(80, 'n');
    struct Case {
        const char* name;
        std::string expected; // the 64-byte field, as stored
    };
    const Case cases[] = {
        {nullptr, std::string(64, '\0')},
        {"DeviceAssocFinishSignal", "DeviceAssocFinishSignal" + std::string(41, '\0')},
        {long_name.c_str(), std::string(64, 'n')},
    };
    for (const Case& c : cases) {
        OsSignal* signal = nullptr;
        ASSERT_EQ(OsAllocateSignal(&signal, c.name), OS_SUCCESS);
        EXPECT_EQ(std::string(signal->Name, sizeof signal->Name), c.expected);
        OsFreeSignal(&signal);
    }
}

TEST_F(SignalTest, MissingSignals)
{
    OsSignal* null_signal = nullptr;
    EXPECT_EQ(OsWaitForSignal(nullptr, 10), OS_NO_SIGNAL);
    EXPECT_THAT(log(), HasSubstr(os_log_line("OsWaitForSignal", "OS:  Signal is not exist")));
    OsSetSignal(nullptr);
    OsClearSignal(nullptr);
    for (OsSignal** argument : {static_cast<OsSignal**>(nullptr), &null_signal}) {
        kernel::clear_debug_output();
        OsFreeSignal(argument);
        EXPECT_THAT(log(), HasSubstr(os_log_line(
                               "OsFreeSignal",
                               "OS:  Free Signal fail cause signal has not allocate before")));
    }
}

TEST_F(SignalTest, FailedAllocation)
{
    struct Case {
        const char* name;
        bool names_it;
    };
    for (const Case& c : {Case{"Threadprocess_FinishSignal", true}, Case{nullptr, false}}) {
        kernel::clear_debug_output();
        kernel::add_pool_fault(kernel::fail_nth(1, OS_POOL_TAG));
        OsSignal stale{};
        OsSignal* signal = &stale;
        EXPECT_EQ(OsAllocateSignal(&signal, c.name), OS_NO_MEMORY);
        EXPECT_EQ(signal, nullptr);
        EXPECT_THAT(log(),
                    HasSubstr(os_log_line("OsAllocateSignal", "OS:     Allocat Signal Error")));
        const std::string named =
            os_log_line("OsAllocateSignal", "OS:  Signal Id String is Threadprocess_FinishSignal");
        if (c.names_it) {
            EXPECT_THAT(log(), HasSubstr(named));
        } else {
            EXPECT_THAT(log(), Not(HasSubstr("Signal Id String")));
        }
    }
}

} // namespace
} // namespace mvgps::test
