#include "sim/support/line.h"

namespace mvgps::sim
{

std::span<const std::uint32_t> standard_rates()
{
    static constexpr std::uint32_t kRates[] = {110,    300,    600,    1200,   2400,  4800,
                                               9600,   14400,  19200,  38400,  57600, 115200,
                                               128000, 230400, 256000, 460800, 921600};
    return kRates;
}

namespace
{

// Counted in half bits so that one and a half stop bits stay exact.
std::int64_t half_bits(const LineSettings& s)
{
    return 2 * (1 + s.format.data_bits) + (s.format.parity != 0 ? 2 : 0) + 2 + s.format.stop_bits;
}

} // namespace

sched::Nanos line_time(const LineSettings& s, std::size_t n)
{
    if (s.rate == 0) {
        return sched::kForever;
    }
    return static_cast<sched::Nanos>(n) * half_bits(s) * sched::kSecond /
           (2 * static_cast<std::int64_t>(s.rate));
}

std::size_t chars_in(const LineSettings& s, sched::Nanos elapsed)
{
    if (s.rate == 0 || elapsed <= 0) {
        return 0;
    }
    // Whole seconds first, so that long spans do not overflow.
    const std::int64_t per_second = 2 * static_cast<std::int64_t>(s.rate);
    const std::int64_t hb = half_bits(s);
    const std::int64_t secs = elapsed / sched::kSecond;
    const std::int64_t rest = elapsed % sched::kSecond;
    auto n =
        static_cast<std::size_t>((secs * per_second + rest * per_second / sched::kSecond) / hb);
    while (line_time(s, n + 1) <= elapsed) {
        ++n;
    }
    while (n > 0 && line_time(s, n) > elapsed) {
        --n;
    }
    return n;
}

} // namespace mvgps::sim
