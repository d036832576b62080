#include "host/verifier/faults.h"

#include <mutex>
#include <string>
#include <vector>

#include "host/sched/random.h"
#include "host/sched/sched.h"

namespace mvgps::verifier
{
namespace
{

struct Armed {
    FaultRule rule;
    std::uint64_t seen = 0;
    sched::Random random;
};

struct Table {
    std::mutex lock;
    std::vector<Armed> rules;
    std::uint64_t fired = 0;
};

// Never destroyed: threads may still allocate while the process exits.
Table& table()
{
    static Table* t = new Table;
    return *t;
}

bool matches(const FaultRule& r, Site site, std::uint32_t what, std::uint32_t code)
{
    return r.site == site && (!r.what || *r.what == what) && (!r.code || *r.code == code);
}

bool fires(Armed& armed)
{
    armed.seen++;
    switch (armed.rule.when) {
    case FaultRule::When::Nth:
        return armed.seen == armed.rule.n;
    case FaultRule::When::Every:
        return true;
    case FaultRule::When::Random:
        return armed.random.chance(armed.rule.probability);
    }
    return false;
}

} // namespace

void add_fault(const FaultRule& rule)
{
    Table& t = table();
    std::lock_guard lock(t.lock);
    const std::uint64_t run = sched::installed() ? sched::current().seed() : 0;
    t.rules.push_back(Armed{rule, 0, sched::Random(run, "fault " + std::to_string(rule.seed))});
}

void clear_faults()
{
    Table& t = table();
    std::lock_guard lock(t.lock);
    t.rules.clear();
    t.fired = 0;
}

std::uint64_t faults_fired()
{
    Table& t = table();
    std::lock_guard lock(t.lock);
    return t.fired;
}

std::int32_t inject(Site site, std::uint32_t what, std::uint32_t code)
{
    Table& t = table();
    std::lock_guard lock(t.lock);
    std::int32_t status = 0;
    for (Armed& armed : t.rules) {
        if (matches(armed.rule, site, what, code) && fires(armed) && status == 0) {
            status = armed.rule.status;
        }
    }
    t.fired += status != 0;
    return status;
}

} // namespace mvgps::verifier
