#include "wdf/faults.h"

#include <mutex>
#include <vector>

namespace mvgps::wdf::faults
{
namespace
{

struct Armed {
    Rule rule;
    std::uint64_t seen = 0;
    std::uint64_t prng;
};

struct Table {
    std::mutex lock;
    std::vector<Armed> rules;
};

Table& table()
{
    static Table t;
    return t;
}

// splitmix64: each rule draws from its own sequence.
double next_unit(std::uint64_t& state)
{
    std::uint64_t z = (state += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    z ^= z >> 31;
    return static_cast<double>(z >> 11) / static_cast<double>(1ULL << 53);
}

bool fires(Armed& armed)
{
    armed.seen++;
    switch (armed.rule.when) {
    case Rule::When::Nth:
        return armed.seen == armed.rule.n;
    case Rule::When::Every:
        return true;
    case Rule::When::Random:
        return next_unit(armed.prng) < armed.rule.probability;
    }
    return false;
}

template <class Match>
NTSTATUS first_firing(Site site, Match match)
{
    std::lock_guard lock(table().lock);
    NTSTATUS result = STATUS_SUCCESS;
    for (auto& armed : table().rules) {
        if (armed.rule.site == site && match(armed.rule) && fires(armed) &&
            result == STATUS_SUCCESS) {
            result = armed.rule.status;
        }
    }
    return result;
}

} // namespace

Rule fail_nth_create(std::uint64_t n, std::optional<Kind> kind)
{
    Rule r;
    r.site = Site::Create;
    r.n = n;
    r.kind = kind;
    return r;
}

Rule fail_nth_send(std::uint64_t n, std::optional<Op> op, NTSTATUS status)
{
    Rule r;
    r.site = Site::Send;
    r.n = n;
    r.op = op;
    r.status = status;
    return r;
}

Rule fail_control(ULONG code, NTSTATUS status)
{
    Rule r;
    r.site = Site::Send;
    r.when = Rule::When::Every;
    r.op = Op::Control;
    r.control = code;
    r.status = status;
    return r;
}

Rule fail_random(Site site, std::uint64_t seed, double probability)
{
    Rule r;
    r.site = site;
    r.when = Rule::When::Random;
    r.seed = seed;
    r.probability = probability;
    return r;
}

void add(const Rule& rule)
{
    std::lock_guard lock(table().lock);
    table().rules.push_back(Armed{rule, 0, rule.seed});
}

void clear()
{
    std::lock_guard lock(table().lock);
    table().rules.clear();
}

NTSTATUS on_create(Kind kind)
{
    return first_firing(Site::Create, [kind](const Rule& r) { return !r.kind || *r.kind == kind; });
}

NTSTATUS on_send(Op op, ULONG control_code)
{
    return first_firing(Site::Send, [op, control_code](const Rule& r) {
        return (!r.op || *r.op == op) && (!r.control || *r.control == control_code);
    });
}

} // namespace mvgps::wdf::faults
