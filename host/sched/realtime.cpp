// Real threads on the monotonic clock. The state lock is one mutex; a blocked thread sleeps
// on its own condition variable until woken or until its deadline.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <vector>

#include "host/sched/thread_record.h"

namespace mvgps::sched
{
namespace
{

using Clock = std::chrono::steady_clock;

class Realtime final : public Scheduler
{
  public:
    Realtime()
        : start_(Clock::now()), epoch_(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                           std::chrono::system_clock::now().time_since_epoch())
                                           .count())
    {
    }

    ~Realtime() override
    {
        for (auto& t : threads_)
            if (t->os.joinable())
                t->os.join();
        if (binding().owner == this)
            binding() = {};
    }

    Mode mode() const override { return Mode::Realtime; }
    std::uint64_t seed() const override { return 0; }
    Nanos now() override
    {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start_).count();
    }
    Nanos epoch() const override { return epoch_; }

    Thread* spawn(std::string name, std::function<void()> body) override
    {
        Thread* t;
        {
            std::lock_guard<std::mutex> lk(state_);
            t = add_record(threads_, std::move(name));
            t->body = std::move(body);
        }
        t->os = std::thread([this, t] {
            binding() = {this, t};
            t->body();
            std::lock_guard<std::mutex> lk(state_);
            t->body = nullptr;
            t->state = Thread::State::Done;
            wake(t->joiners);
        });
        return t;
    }

    void join(Thread* t) override
    {
        std::lock_guard<std::mutex> lk(state_);
        wait(t->joiners, "join", kForever, [t] { return t->state == Thread::State::Done; });
    }

    Thread* self() override
    {
        ThreadBinding& b = binding();
        if (b.owner != this) {
            std::lock_guard<std::mutex> lk(state_);
            b = {this, add_record(threads_, "adopted")};
        }
        return b.thread;
    }

    const std::string& name(const Thread* t) const override { return t->name; }

    void lock() override { state_.lock(); }
    void unlock() override { state_.unlock(); }

    WaitResult wait(WaitList& list, const char* what, Nanos deadline,
                    const std::function<bool()>& ready) override
    {
        Thread* me = self_locked();
        std::unique_lock<std::mutex> lk(state_, std::adopt_lock);
        WaitResult result = WaitResult::Ready;
        while (!ready()) {
            if (now() >= deadline) {
                result = WaitResult::TimedOut;
                break;
            }
            enqueue(list, me);
            me->what = what;
            me->woken = false;
            if (deadline == kForever)
                me->cv.wait(lk, [me] { return me->woken; });
            else
                me->cv.wait_until(lk, start_ + std::chrono::nanoseconds(deadline),
                                  [me] { return me->woken; });
            dequeue(me);
        }
        lk.release(); // the caller still holds the state lock
        return result;
    }

    void wake(WaitList& list) override
    {
        while (Thread* t = list.first) {
            dequeue(t);
            t->woken = true;
            t->cv.notify_one();
        }
    }

    void point(const char*) override {}

    void sleep_until(Nanos deadline, const char* what) override
    {
        std::lock_guard<std::mutex> lk(state_);
        WaitList nobody;
        wait(nobody, what, deadline, [] { return false; });
    }

    std::vector<std::string> trace() const override { return {}; }
    std::uint64_t trace_hash() const override { return 0; }

  private:
    // self() for callers that already hold the state lock.
    Thread* self_locked()
    {
        ThreadBinding& b = binding();
        if (b.owner != this)
            b = {this, add_record(threads_, "adopted")};
        return b.thread;
    }

    const Clock::time_point start_;
    const Nanos epoch_;
    std::mutex state_;
    ThreadTable threads_;
};

} // namespace

std::unique_ptr<Scheduler> make_realtime()
{
    return std::make_unique<Realtime>();
}

} // namespace mvgps::sched
