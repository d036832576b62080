#include "wdf/timeout.h"

namespace mvgps::wdf
{

sched::Nanos deadline_from(const LONGLONG* timeout)
{
    if (!timeout) {
        return sched::kForever;
    }
    sched::Nanos now = sched::current().now();
    LONGLONG units = *timeout;
    if (units > 0) {
        LARGE_INTEGER system_time;
        KeQuerySystemTime(&system_time);
        units = system_time.QuadPart >= units ? 0 : system_time.QuadPart - units;
    }
    sched::Nanos delay = -units;
    return delay > (sched::kForever - now) / 100 ? sched::kForever : now + delay * 100;
}

} // namespace mvgps::wdf
