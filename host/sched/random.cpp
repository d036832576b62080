#include "host/sched/random.h"

#include "host/sched/sched.h"

namespace mvgps::sched
{

namespace
{

std::uint64_t splitmix(std::uint64_t& x)
{
    std::uint64_t z = (x += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

// FNV-1a: stream names are short, and only need to land on different states.
std::uint64_t hash(std::string_view s)
{
    std::uint64_t h = 0xCBF29CE484222325ull;
    for (char c : s) {
        h = (h ^ static_cast<unsigned char>(c)) * 0x100000001B3ull;
    }
    return h;
}

std::uint64_t rotl(std::uint64_t x, int k)
{
    return (x << k) | (x >> (64 - k));
}

} // namespace

Random::Random(std::uint64_t seed, std::string_view stream)
{
    std::uint64_t x = seed ^ hash(stream);
    for (auto& word : s_) {
        word = splitmix(x);
    }
}

Random::Random(std::string_view stream) : Random(current().seed(), stream) {}

// xoshiro256**
std::uint64_t Random::next()
{
    const std::uint64_t result = rotl(s_[1] * 5, 7) * 9;
    const std::uint64_t t = s_[1] << 17;
    s_[2] ^= s_[0];
    s_[3] ^= s_[1];
    s_[1] ^= s_[2];
    s_[0] ^= s_[3];
    s_[2] ^= t;
    s_[3] = rotl(s_[3], 45);
    return result;
}

std::int64_t Random::between(std::int64_t lo, std::int64_t hi)
{
    if (hi <= lo) {
        return lo;
    }
    const auto span = static_cast<std::uint64_t>(hi - lo) + 1;
    return lo + static_cast<std::int64_t>(span == 0 ? next() : next() % span);
}

bool Random::chance(double p)
{
    if (p <= 0.0) {
        return false;
    }
    if (p >= 1.0) {
        return true;
    }
    return static_cast<double>(next() >> 11) * 0x1.0p-53 < p;
}

} // namespace mvgps::sched
