// The world draws from the host's one source of chance (host/sched/random.h).
#pragma once

#include "host/sched/random.h"

namespace mvgps::sim
{

using Random = sched::Random;

} // namespace mvgps::sim
