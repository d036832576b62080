// Kernel timeouts as scheduler deadlines.
#pragma once

#include <wdm.h>

#include "sched/sched.h"

namespace mvgps::wdf
{

// A null timeout waits without limit, a negative one is relative and a positive one absolute
// system time, both in 100-ns units; zero only tries.
sched::Nanos deadline_from(const LONGLONG* timeout);

} // namespace mvgps::wdf
