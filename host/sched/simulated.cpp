// Deterministic simulation: real threads, one running at a time. The running thread holds
// the baton mutex; at every scheduling point it picks the next runnable thread with the
// seeded PRNG and hands the baton over. With nothing runnable, virtual time jumps to the
// earliest deadline; with no deadline either, the run is deadlocked and stops with a report.
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <vector>

#include "host/sched/random.h"
#include "host/sched/thread_record.h"

namespace mvgps::sched
{
namespace
{

constexpr std::size_t kTraceLinesKept = 200'000;
constexpr Nanos kSimulatedEpoch = 1'706'745'600 * kSecond; // 2024-02-01 00:00 UTC

class Simulated final : public Scheduler
{
  public:
    explicit Simulated(std::uint64_t seed) : seed_(seed), rng_(seed, "schedule")
    {
        Thread* main = add_record(threads_, "main");
        main_lock_ = std::unique_lock<std::mutex>(baton_);
        main->baton = &main_lock_;
        bind(main);
        running_ = main;
    }

    ~Simulated() override
    {
        check_all_done();
        main_lock_.unlock();
        for (auto& t : threads_)
            if (t->os.joinable())
                t->os.join();
        binding() = {};
    }

    Mode mode() const override { return Mode::Simulated; }
    std::uint64_t seed() const override { return seed_; }
    Nanos now() override { return now_; }
    Nanos epoch() const override { return kSimulatedEpoch; }

    Thread* spawn(std::string name, std::function<void()> body) override
    {
        Thread* t = add_record(threads_, std::move(name));
        t->body = std::move(body);
        t->os = std::thread([this, t] { thread_main(t); });
        point("spawn");
        return t;
    }

    void join(Thread* t) override
    {
        wait(t->joiners, "join", kForever, [t] { return t->state == Thread::State::Done; });
    }

    Thread* self() override
    {
        ThreadBinding& b = binding();
        if (b.owner != this) {
            std::fputs("mvgps: a thread the simulation did not start called the scheduler\n",
                       stderr);
            std::abort();
        }
        return b.thread;
    }

    const std::string& name(const Thread* t) const override { return t->name; }

    void lock() override { self(); }
    void unlock() override {}

    WaitResult wait(WaitList& list, const char* what, Nanos deadline,
                    const std::function<bool()>& ready) override
    {
        Thread* me = self();
        for (;;) {
            if (ready())
                return WaitResult::Ready;
            if (now_ >= deadline)
                return WaitResult::TimedOut;
            enqueue(list, me);
            me->state = Thread::State::Blocked;
            me->what = what;
            me->deadline = deadline;
            me->timed_out = false;
            switch_to_next(me, what);
            if (me->timed_out)
                return ready() ? WaitResult::Ready : WaitResult::TimedOut;
        }
    }

    void wake(WaitList& list) override
    {
        while (Thread* t = list.first) {
            dequeue(t);
            t->state = Thread::State::Runnable;
        }
    }

    void point(const char* what) override { switch_to_next(self(), what); }

    void sleep_until(Nanos deadline, const char* what) override
    {
        WaitList nobody;
        wait(nobody, what, deadline, [] { return false; });
    }

    std::vector<std::string> trace() const override { return trace_; }
    std::uint64_t trace_hash() const override { return hash_; }

  private:
    void bind(Thread* t) { binding() = {this, t}; }

    void thread_main(Thread* t)
    {
        std::unique_lock<std::mutex> lk(baton_);
        t->baton = &lk;
        bind(t);
        t->cv.wait(lk, [&] { return running_ == t; });
        t->body();
        t->body = nullptr;
        t->state = Thread::State::Done;
        wake(t->joiners);
        hand_over(t, "exit");
    }

    // Blocks the caller (unless it stays the chosen one) until the baton comes back.
    void switch_to_next(Thread* me, const char* what)
    {
        hand_over(me, what);
        me->cv.wait(*me->baton, [&] { return running_ == me; });
    }

    void hand_over(Thread* me, const char* what)
    {
        Thread* next = pick();
        record(next, what);
        running_ = next;
        if (next != me)
            next->cv.notify_one();
    }

    Thread* pick()
    {
        std::vector<Thread*> runnable = runnable_threads();
        if (runnable.empty()) {
            advance_time();
            runnable = runnable_threads();
        }
        if (runnable.empty())
            report_deadlock();
        return runnable[rng_.next() % runnable.size()];
    }

    std::vector<Thread*> runnable_threads() const
    {
        std::vector<Thread*> out;
        for (const auto& t : threads_)
            if (t->state == Thread::State::Runnable)
                out.push_back(t.get());
        return out;
    }

    void advance_time()
    {
        Nanos earliest = kForever;
        for (const auto& t : threads_)
            if (t->state == Thread::State::Blocked && t->deadline < earliest)
                earliest = t->deadline;
        if (earliest == kForever)
            return;
        now_ = earliest;
        for (const auto& t : threads_) {
            if (t->state == Thread::State::Blocked && t->deadline <= now_) {
                dequeue(t.get());
                t->state = Thread::State::Runnable;
                t->timed_out = true;
            }
        }
    }

    void record(const Thread* next, const char* what)
    {
        char line[160];
        std::snprintf(line, sizeof line, "%" PRId64 " %s %s", now_, next->name.c_str(), what);
        for (const char* p = line; *p != '\0'; ++p)
            hash_ = (hash_ ^ static_cast<unsigned char>(*p)) * 0x100000001B3ULL;
        hash_ = (hash_ ^ '\n') * 0x100000001B3ULL;
        if (trace_.size() < kTraceLinesKept)
            trace_.emplace_back(line);
    }

    void describe_threads(FILE* out) const
    {
        for (const auto& t : threads_) {
            if (t->state == Thread::State::Done)
                continue;
            if (t->state == Thread::State::Runnable)
                std::fprintf(out, "  thread '%s' is runnable\n", t->name.c_str());
            else if (t->deadline == kForever)
                std::fprintf(out, "  thread '%s' waits on %s (no timeout)\n", t->name.c_str(),
                             t->what);
            else
                std::fprintf(out, "  thread '%s' waits on %s until %" PRId64 " ns\n",
                             t->name.c_str(), t->what, t->deadline);
        }
    }

    [[noreturn]] void report_deadlock() const
    {
        std::fprintf(stderr,
                     "\n*** DEADLOCK at %" PRId64 " ns (virtual): no thread can run and none "
                     "has a deadline\n",
                     now_);
        describe_threads(stderr);
        std::fprintf(stderr, "replay with MVGPS_SEED=%" PRIu64 "\n", seed_);
        std::fflush(stderr);
        std::abort();
    }

    void check_all_done() const
    {
        for (std::size_t i = 1; i < threads_.size(); ++i) {
            if (threads_[i]->state != Thread::State::Done) {
                std::fprintf(stderr, "\n*** simulation torn down while threads still live\n");
                describe_threads(stderr);
                std::fprintf(stderr, "replay with MVGPS_SEED=%" PRIu64 "\n", seed_);
                std::fflush(stderr);
                std::abort();
            }
        }
    }

    const std::uint64_t seed_;
    Random rng_;
    std::mutex baton_;
    std::unique_lock<std::mutex> main_lock_;
    ThreadTable threads_;
    Thread* running_ = nullptr;
    Nanos now_ = 0;
    std::vector<std::string> trace_;
    std::uint64_t hash_ = 0xCBF29CE484222325ULL;
};

} // namespace

std::unique_ptr<Scheduler> make_simulated(std::uint64_t seed)
{
    return std::make_unique<Simulated>(seed);
}

} // namespace mvgps::sched
