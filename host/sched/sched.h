// The one scheduler behind every wait, delay, thread start and clock read of the host and
// of the simulated world. Two modes share this interface:
//   Simulated: real threads, but exactly one runs at a time. At each scheduling point a
//              seeded PRNG picks the next runnable thread; when none is runnable, virtual
//              time jumps to the earliest deadline. The same seed replays the same run.
//   Realtime:  real threads running freely, the monotonic clock.
//
// Host objects keep their state under the scheduler's state lock (a monitor): take it with
// StateLock, test or change the state, and block with wait(), which releases the lock while
// the thread sleeps. Whoever changes the state calls wake() on the same WaitList.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace mvgps::sched
{

using Nanos = std::int64_t;
inline constexpr Nanos kForever = INT64_MAX;
inline constexpr Nanos kMillisecond = 1'000'000;
inline constexpr Nanos kSecond = 1'000'000'000;

enum class Mode { Simulated, Realtime };
enum class WaitResult { Ready, TimedOut };

struct Thread;

// Threads blocked on one object. Two pointers, zero-initialised, so it can live inside a
// kernel record of fixed size (the wait-list head of a KEVENT).
struct WaitList {
    Thread* first = nullptr;
    Thread* last = nullptr;
};

class Scheduler
{
  public:
    virtual ~Scheduler() = default;

    virtual Mode mode() const = 0;
    // Seed of the simulated run (0 in realtime mode).
    virtual std::uint64_t seed() const = 0;
    // Nanoseconds since the scheduler was created: virtual in simulated mode.
    virtual Nanos now() = 0;
    // Calendar time at now() == 0, in nanoseconds since 1970: a fixed date in simulated mode
    // (a replay sees the same clock), the real clock at creation in realtime mode.
    virtual Nanos epoch() const = 0;

    // Starts a thread running body(). The record lives until the scheduler is destroyed.
    virtual Thread* spawn(std::string name, std::function<void()> body) = 0;
    // Blocks until t's body has returned.
    virtual void join(Thread* t) = 0;
    // The calling thread. In realtime mode threads the scheduler did not start are adopted.
    virtual Thread* self() = 0;
    virtual const std::string& name(const Thread* t) const = 0;

    // The state lock. In simulated mode the running thread holds the baton, so these only
    // check that the caller is the running thread.
    virtual void lock() = 0;
    virtual void unlock() = 0;

    // With the state lock held: returns Ready as soon as ready() is true (checked under the
    // lock, so it may consume the state it tests), or TimedOut once `deadline` (absolute,
    // kForever for none) has passed. `what` names the wait in deadlock reports and traces.
    virtual WaitResult wait(WaitList& list, const char* what, Nanos deadline,
                            const std::function<bool()>& ready) = 0;
    // With the state lock held: every thread waiting on `list` re-checks its condition.
    virtual void wake(WaitList& list) = 0;
    // A scheduling point that does not block (call without the state lock).
    virtual void point(const char* what) = 0;
    // Sleeps until the absolute time `deadline` (call without the state lock).
    virtual void sleep_until(Nanos deadline, const char* what) = 0;

    // Simulated mode: one line per scheduling decision ("<ns> <thread> <what>"), and a hash
    // of all of them, so that two runs can be compared. Realtime mode records nothing.
    virtual std::vector<std::string> trace() const = 0;
    virtual std::uint64_t trace_hash() const = 0;
};

// The scheduler installed for this process. Aborts when none is installed.
Scheduler& current();
bool installed();

// Installs a scheduler for its lifetime; the previous one (if any) comes back afterwards.
class Install
{
  public:
    explicit Install(std::unique_ptr<Scheduler> s);
    ~Install();
    Install(const Install&) = delete;
    Install& operator=(const Install&) = delete;
    Scheduler& get() { return *sched_; }

  private:
    std::unique_ptr<Scheduler> sched_;
    Scheduler* previous_;
};

// The calling thread becomes the simulation's first thread ("main") and holds the baton.
std::unique_ptr<Scheduler> make_simulated(std::uint64_t seed);
std::unique_ptr<Scheduler> make_realtime();
// MVGPS_SCHED=simulated|realtime (default: the build's default mode); MVGPS_SEED=n replays a
// simulated run, otherwise the seed is drawn from the clock.
std::unique_ptr<Scheduler> make_from_env();
std::uint64_t seed_from_env();

class StateLock
{
  public:
    explicit StateLock(Scheduler& s) : s_(s) { s_.lock(); }
    ~StateLock() { s_.unlock(); }
    StateLock(const StateLock&) = delete;
    StateLock& operator=(const StateLock&) = delete;

  private:
    Scheduler& s_;
};

} // namespace mvgps::sched
