// Helpers for the kernel's tests: relative times and system threads to drive a simulated run.
#pragma once

#include <wdm.h>

#include <gtest/gtest.h>

#include <functional>

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

// A system thread running `body`, referenced so that the test can wait for its end.
class SystemThread
{
  public:
    explicit SystemThread(std::function<void()> body) : body_(std::move(body))
    {
        HANDLE handle;
        EXPECT_EQ(PsCreateSystemThread(&handle, THREAD_ALL_ACCESS, nullptr, nullptr, nullptr,
                                       &SystemThread::run, this),
                  STATUS_SUCCESS);
        EXPECT_EQ(ObReferenceObjectByHandle(handle, THREAD_ALL_ACCESS, *PsThreadType, KernelMode,
                                            &object_, nullptr),
                  STATUS_SUCCESS);
        EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
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
    static VOID run(PVOID self) { static_cast<SystemThread*>(self)->body_(); }
    std::function<void()> body_;
    PVOID object_ = nullptr;
};

} // namespace mvgps::kernel::test
