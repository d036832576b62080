#include "host/wdf/rules.h"

#include "host/kernel/kernel.h"
#include "host/verifier/verifier.h"

namespace mvgps::wdf
{

void violation(Rule rule, const std::string& what, std::uint64_t p2, std::uint64_t p3,
               std::uint64_t p4)
{
    verifier::bugcheck(verifier::kWdfViolation, what, static_cast<std::uint64_t>(rule), p2, p3, p4);
}

void power_failure(const std::string& what, std::uint64_t p2)
{
    verifier::bugcheck(verifier::kDriverPowerStateFailure, what, 0x3, p2);
}

void note(const std::string& event)
{
    verifier::note(event);
}

CallbackCheck::CallbackCheck(const char* name)
    : name_(name), irql_(kernel::current_irql()), spin_locks_(kernel::spin_locks_held())
{
}

CallbackCheck::~CallbackCheck()
{
    if (kernel::spin_locks_held() > spin_locks_) {
        violation(Rule::CallbackSpinLock,
                  std::string("callback returned holding a spin lock: ") + name_,
                  kernel::spin_locks_held());
    }
    KIRQL now = kernel::current_irql();
    if (now != irql_) {
        violation(Rule::CallbackIrql, std::string("callback returned at a raised IRQL: ") + name_,
                  now, irql_);
    }
}

} // namespace mvgps::wdf
