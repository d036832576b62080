// A host-side mutex that blocks through the scheduler, so it may be held across scheduling
// points (a std::mutex held there would stall simulated mode).
#pragma once

#include "host/sched/sched.h"

namespace mvgps::wdf
{

class HostMutex
{
  public:
    explicit HostMutex(const char* what) : what_(what) {}
    void lock()
    {
        auto& s = sched::current();
        sched::Thread* me = s.self();
        sched::StateLock state(s);
        s.wait(waiters_, what_, sched::kForever, [&] {
            if (owner_) {
                return false;
            }
            owner_ = me;
            return true;
        });
    }
    void unlock()
    {
        auto& s = sched::current();
        {
            sched::StateLock state(s);
            owner_ = nullptr;
            s.wake(waiters_);
        }
        s.point(what_);
    }
    bool held_by_caller()
    {
        auto& s = sched::current();
        sched::StateLock state(s);
        return owner_ == s.self();
    }

  private:
    const char* what_;
    sched::Thread* owner_ = nullptr;
    sched::WaitList waiters_;
};

} // namespace mvgps::wdf
