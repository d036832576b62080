#include "sim/chip/nmea.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <sstream>

namespace mvgps::sim::chip
{

namespace
{

constexpr long kDay = 86'400'000;

// "GGA" for "$GPGGA,...": the last three letters of the address field.
std::string_view sentence_type(std::string_view s)
{
    if (s.size() < 6 || (s[0] != '$' && s[0] != '!')) {
        return {};
    }
    const auto comma = s.find(',');
    if (comma == std::string_view::npos || comma < 4) {
        return {};
    }
    return s.substr(comma - 3, 3);
}

bool timed_type(std::string_view type)
{
    return type == "GGA" || type == "RMC";
}

std::optional<long> parse_time(std::string_view t)
{
    if (t.size() < 6) {
        return std::nullopt;
    }
    long hms[3];
    for (int i = 0; i < 3; ++i) {
        auto [end, ec] = std::from_chars(t.data() + 2 * i, t.data() + 2 * i + 2, hms[i]);
        if (ec != std::errc{} || end != t.data() + 2 * i + 2) {
            return std::nullopt;
        }
    }
    if (hms[0] > 23 || hms[1] > 59 || hms[2] > 60) {
        return std::nullopt;
    }
    long ms = 0;
    if (t.size() > 6) {
        if (t[6] != '.') {
            return std::nullopt;
        }
        long scale = 100;
        for (char c : t.substr(7)) {
            if (c < '0' || c > '9') {
                return std::nullopt;
            }
            ms += (c - '0') * scale;
            scale /= 10;
        }
    }
    return ((hms[0] * 60 + hms[1]) * 60 + hms[2]) * 1000 + ms;
}

sched::Nanos usual_step(const std::vector<long>& times)
{
    std::vector<long> steps;
    for (std::size_t i = 1; i < times.size(); ++i) {
        long d = times[i] - times[i - 1];
        if (d < 0) {
            d += kDay; // across midnight
        }
        if (d > 0) {
            steps.push_back(d);
        }
    }
    if (steps.empty()) {
        return sched::kSecond;
    }
    std::nth_element(steps.begin(), steps.begin() + static_cast<long>(steps.size() / 2),
                     steps.end());
    return steps[steps.size() / 2] * sched::kMillisecond;
}

} // namespace

std::optional<long> sentence_time(std::string_view sentence)
{
    if (!timed_type(sentence_type(sentence))) {
        return std::nullopt;
    }
    const auto first = sentence.find(',');
    const auto second = sentence.find_first_of(",*", first + 1);
    return parse_time(sentence.substr(
        first + 1, second == std::string_view::npos ? std::string_view::npos : second - first - 1));
}

Capture Capture::parse(std::string_view text)
{
    Capture c;
    std::vector<long> times;
    // A plain value and flag: an optional here trips a false uninitialised-use warning at -O2.
    long epoch_time = 0;
    bool have_epoch_time = false;
    std::vector<std::string_view> seen;
    while (!text.empty()) {
        const auto nl = text.find('\n');
        std::string_view line = text.substr(0, nl);
        text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
        if (!line.empty() && line.back() == '\r') {
            line.remove_suffix(1);
        }
        if (line.empty() || line[0] == '#') {
            continue;
        }
        const auto type = sentence_type(line);
        if (timed_type(type)) {
            const auto t = sentence_time(line);
            const bool repeated = std::find(seen.begin(), seen.end(), type) != seen.end();
            if (!c.epochs_.empty() && (repeated || (t && have_epoch_time && *t != epoch_time))) {
                c.epochs_.emplace_back();
                seen.clear();
                have_epoch_time = false;
            }
            seen.push_back(type);
            if (t && !have_epoch_time) {
                epoch_time = *t;
                have_epoch_time = true;
                times.push_back(*t);
            }
        }
        if (c.epochs_.empty()) {
            c.epochs_.emplace_back();
        }
        c.epochs_.back().sentences.emplace_back(line);
    }
    c.period_ = usual_step(times);
    return c;
}

std::optional<Capture> Capture::load(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        return std::nullopt;
    }
    std::ostringstream text;
    text << in.rdbuf();
    Capture c = parse(text.str());
    if (c.epochs_.empty()) {
        return std::nullopt;
    }
    return c;
}

std::size_t Capture::sentence_count() const
{
    std::size_t n = 0;
    for (const auto& e : epochs_) {
        n += e.sentences.size();
    }
    return n;
}

} // namespace mvgps::sim::chip
