// Helpers for the kernel's tests: a simulated run per test and system threads to drive it.
#pragma once

#include <wdm.h>

#include <gtest/gtest.h>

#include <functional>
#include <memory>

#include "sched/sched.h"

namespace mvgps::kernel::test
{

inline constexpr LONGLONG kMs = 10'000; // 100 ns units per millisecond

inline LARGE_INTEGER relative_ms(LONGLONG ms)
{
    LARGE_INTEGER t;
    t.QuadPart = -ms * kMs;
    return t;
}

inline void delay_ms(LONGLONG ms)
{
    LARGE_INTEGER t = relative_ms(ms);
    KeDelayExecutionThread(KernelMode, FALSE, &t);
}

inline LONGLONG elapsed_ms(ULONGLONG since)
{
    return (KeQueryInterruptTime() - since) / kMs;
}

// A system thread running `body`, referenced so that the test can wait for its end.
class SystemThread
{
  public:
    explicit SystemThread(std::function<void()> body) : body_(std::move(body))
    {
        HANDLE handle;
        EXPECT_EQ(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr,
                                       &SystemThread::start, this),
                  STATUS_SUCCESS);
        EXPECT_EQ(ObReferenceObjectByHandle(handle, THREAD_ALL_ACCESS, nullptr, KernelMode,
                                            &object_, nullptr),
                  STATUS_SUCCESS);
        ZwClose(handle);
    }
    SystemThread(const SystemThread&) = delete;
    SystemThread& operator=(const SystemThread&) = delete;
    ~SystemThread()
    {
        join();
        ObDereferenceObject(object_);
    }
    void join() { KeWaitForSingleObject(object_, Executive, KernelMode, FALSE, nullptr); }
    PVOID object() const { return object_; }

  private:
    static VOID start(PVOID self) { static_cast<SystemThread*>(self)->body_(); }
    std::function<void()> body_;
    PVOID object_ = nullptr;
};

} // namespace mvgps::kernel::test
