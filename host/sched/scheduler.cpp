#include <cstdio>
#include <cstdlib>
#include <random>
#include <string_view>

#include "host/sched/thread_record.h"

namespace mvgps::sched
{

namespace
{
Scheduler* g_current = nullptr;
}

ThreadBinding& binding()
{
    thread_local ThreadBinding b;
    return b;
}

Scheduler& current()
{
    if (g_current == nullptr) {
        std::fputs("mvgps: no scheduler installed\n", stderr);
        std::abort();
    }
    return *g_current;
}

bool installed()
{
    return g_current != nullptr;
}

Install::Install(std::unique_ptr<Scheduler> s) : sched_(std::move(s)), previous_(g_current)
{
    g_current = sched_.get();
}

Install::~Install()
{
    g_current = previous_;
    sched_.reset();
}

std::uint64_t seed_from_env()
{
    if (const char* s = std::getenv("MVGPS_SEED"); s != nullptr && *s != '\0')
        return std::strtoull(s, nullptr, 0);
    std::random_device rd;
    return (std::uint64_t{rd()} << 32) ^ rd();
}

std::unique_ptr<Scheduler> make_from_env()
{
    const char* m = std::getenv("MVGPS_SCHED");
    std::string_view mode = (m != nullptr && *m != '\0') ? m : MVGPS_DEFAULT_SCHED;
    if (mode == "realtime")
        return make_realtime();
    return make_simulated(seed_from_env());
}

} // namespace mvgps::sched
