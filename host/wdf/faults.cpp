#include "host/wdf/faults.h"

namespace mvgps::wdf::faults
{
namespace
{

Rule rule(Site site, Rule::When when, NTSTATUS status)
{
    Rule r;
    r.site = site;
    r.when = when;
    r.status = status;
    return r;
}

std::optional<std::uint32_t> key(auto value)
{
    if (!value) {
        return std::nullopt;
    }
    return static_cast<std::uint32_t>(*value);
}

} // namespace

Rule fail_nth_create(std::uint64_t n, std::optional<Kind> kind)
{
    Rule r = rule(Site::Create, Rule::When::Nth, STATUS_INSUFFICIENT_RESOURCES);
    r.n = n;
    r.what = key(kind);
    return r;
}

Rule fail_nth_send(std::uint64_t n, std::optional<Op> op, NTSTATUS status)
{
    Rule r = rule(Site::Send, Rule::When::Nth, status);
    r.n = n;
    r.what = key(op);
    return r;
}

Rule fail_control(ULONG code, NTSTATUS status)
{
    Rule r = rule(Site::Send, Rule::When::Every, status);
    r.what = static_cast<std::uint32_t>(Op::Control);
    r.code = code;
    return r;
}

Rule fail_random(Site site, std::uint64_t seed, double probability)
{
    Rule r = rule(site, Rule::When::Random, STATUS_INSUFFICIENT_RESOURCES);
    r.seed = seed;
    r.probability = probability;
    return r;
}

NTSTATUS on_create(Kind kind)
{
    return verifier::inject(Site::Create, static_cast<std::uint32_t>(kind));
}

NTSTATUS on_send(Op op, ULONG control_code)
{
    return verifier::inject(Site::Send, static_cast<std::uint32_t>(op), control_code);
}

} // namespace mvgps::wdf::faults
