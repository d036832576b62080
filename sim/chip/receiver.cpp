#include "sim/chip/receiver.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdarg>
#include <cstdio>

namespace mvgps::sim::chip
{

using sched::Nanos;

namespace
{

constexpr double kPi = 3.14159265358979323846;
constexpr double kEarthRadius = 6'371'000.0;
constexpr double kKnots = 1.943844; // per m/s
constexpr double kGeoid = 47.0;     // geoid above the ellipsoid, m
constexpr std::size_t kMaxUsed = 12;
constexpr int kMinElevationUsed = 10;

double in_seconds(Nanos t)
{
    return static_cast<double>(t) / sched::kSecond;
}

std::string format(const char* fmt, ...)
{
    char text[128];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    return text;
}

// "$body*CS": the checksum is the XOR of every character between '$' and '*'.
std::string sentence(const std::string& body)
{
    std::uint8_t sum = 0;
    for (char c : body) {
        sum ^= static_cast<std::uint8_t>(c);
    }
    return "$" + body + format("*%02X", sum);
}

// ddmm.mmmm,N or dddmm.mmmm,E
std::string angle(double degrees, int width, char positive, char negative)
{
    const double a = std::fabs(degrees);
    const int whole = static_cast<int>(a);
    return format("%0*d%07.4f,%c", width, whole, (a - whole) * 60.0,
                  degrees >= 0 ? positive : negative);
}

// The route in metres east and north of its first waypoint.
struct Point {
    double x = 0;
    double y = 0;
};

Point local(const Waypoint& origin, const Waypoint& w)
{
    const double scale = kEarthRadius * kPi / 180.0;
    return {(w.longitude - origin.longitude) * scale * std::cos(origin.latitude * kPi / 180.0),
            (w.latitude - origin.latitude) * scale};
}

// What one epoch reports.
struct Report {
    std::string time; // hhmmss.00
    std::string date; // ddmmyy
    bool fixed = false;
    Place place;
    double speed = 0;
    double altitude = 0;
    std::vector<SkyView> sky;
    std::vector<int> used;
};

std::string utc_time(std::int64_t utc)
{
    const std::int64_t s = ((utc % 86'400) + 86'400) % 86'400;
    return format("%02d%02d%02d.00", static_cast<int>(s / 3600), static_cast<int>(s / 60 % 60),
                  static_cast<int>(s % 60));
}

std::string utc_date(std::int64_t utc)
{
    using namespace std::chrono;
    const year_month_day d{floor<days>(sys_seconds{seconds{utc}})};
    return format("%02u%02u%02d", static_cast<unsigned>(d.day()), static_cast<unsigned>(d.month()),
                  static_cast<int>(d.year()) % 100);
}

double hdop(const Report& r)
{
    return 0.6 + 3.0 / static_cast<double>(r.used.size());
}

double vdop(const Report& r)
{
    return 1.2 * hdop(r) + 0.2;
}

std::string position(const Report& r)
{
    return angle(r.place.latitude, 2, 'N', 'S') + "," + angle(r.place.longitude, 3, 'E', 'W');
}

std::string gga(const Report& r)
{
    if (!r.fixed) {
        return sentence("GPGGA," + r.time + ",,,,,0,00,99.9,,M,,M,,");
    }
    return sentence(format("GPGGA,%s,%s,1,%02zu,%.1f,%.1f,M,%.1f,M,,", r.time.c_str(),
                           position(r).c_str(), r.used.size(), hdop(r), r.altitude, kGeoid));
}

std::string gsa(const Report& r)
{
    std::string body = r.fixed ? "GPGSA,A,3" : "GPGSA,A,1";
    for (std::size_t i = 0; i < kMaxUsed; ++i) {
        body += i < r.used.size() ? format(",%02d", r.used[i]) : ",";
    }
    if (!r.fixed) {
        return sentence(body + ",99.9,99.9,99.9");
    }
    return sentence(body +
                    format(",%.1f,%.1f,%.1f", std::hypot(hdop(r), vdop(r)), hdop(r), vdop(r)));
}

std::vector<std::string> gsv(const Report& r)
{
    const std::size_t n = r.sky.size();
    const std::size_t total = std::max<std::size_t>(1, (n + 3) / 4);
    std::vector<std::string> out;
    for (std::size_t i = 0; i < total; ++i) {
        std::string body = format("GPGSV,%zu,%zu,%02zu", total, i + 1, n);
        for (std::size_t k = 4 * i; k < std::min(n, 4 * i + 4); ++k) {
            const SkyView& s = r.sky[k];
            body += format(",%02d,%02d,%03d,", s.prn, s.elevation, s.azimuth);
            if (s.snr > 0) {
                body += format("%02d", s.snr);
            }
        }
        out.push_back(sentence(body));
    }
    return out;
}

std::string rmc(const Report& r)
{
    if (!r.fixed) {
        return sentence("GPRMC," + r.time + ",V,,,,,,," + r.date + ",,,N");
    }
    return sentence(format("GPRMC,%s,A,%s,%.2f,%.2f,%s,,,A", r.time.c_str(), position(r).c_str(),
                           r.speed * kKnots, r.place.course, r.date.c_str()));
}

std::string vtg(const Report& r)
{
    if (!r.fixed) {
        return sentence("GPVTG,,T,,M,,N,,K,N");
    }
    return sentence(
        format("GPVTG,%.2f,T,,M,%.2f,N,%.2f,K,A", r.place.course, r.speed * kKnots, r.speed * 3.6));
}

} // namespace

ReceiverModel::ReceiverModel(ReceiverConfig config, Nanos now)
    : config_(std::move(config)), random_("receiver"), origin_(now)
{
    std::vector<int> prns;
    for (int prn = 1; prn <= 32; ++prn) {
        prns.push_back(prn);
    }
    for (int i = 0; i < config_.satellites && !prns.empty(); ++i) {
        const auto pick = random_.between(0, static_cast<std::int64_t>(prns.size()) - 1);
        Satellite s;
        s.prn = prns[static_cast<std::size_t>(pick)];
        prns.erase(prns.begin() + pick);
        s.elevation = static_cast<double>(random_.between(5, 85));
        s.azimuth = static_cast<double>(random_.between(0, 359));
        s.phase = static_cast<double>(random_.between(0, 359)) * kPi / 180.0;
        constellation_.push_back(s);
    }
    std::sort(constellation_.begin(), constellation_.end(),
              [](const Satellite& a, const Satellite& b) { return a.prn < b.prn; });
    power_on(now);
}

void ReceiverModel::power_on(Nanos now)
{
    assisted_ = false;
    fix_at_ = now + config_.ttff_power_on;
    sky_at_ = now;
}

void ReceiverModel::start(Start kind, Nanos now)
{
    const bool cold = kind == Start::Cold;
    Nanos ttff = cold ? config_.ttff_cold : config_.ttff_warm;
    if (assisted_) {
        ttff = std::min(ttff, config_.ttff_assisted);
        assisted_ = false;
    }
    search(now, ttff, !cold);
}

void ReceiverModel::assist(Nanos now)
{
    if (has_fix(now)) {
        assisted_ = true;
        return;
    }
    // A search under way uses the assistance at once.
    const Nanos at = now + config_.ttff_assisted;
    fix_at_ = std::min(fix_at_, at);
    sky_at_ = std::min(sky_at_, now);
}

void ReceiverModel::search(Nanos now, Nanos ttff, bool keep_satellites)
{
    const Nanos j = config_.ttff_jitter;
    fix_at_ = now + std::max<Nanos>(0, ttff + random_.between(-j, j));
    sky_at_ = keep_satellites ? now : now + (fix_at_ - now) / 2;
}

Place ReceiverModel::place(Nanos now) const
{
    const auto& route = config_.route;
    if (route.size() < 2) {
        return route.empty() ? Place{} : Place{route[0].latitude, route[0].longitude, 0};
    }
    std::vector<Point> pts;
    for (const auto& w : route) {
        pts.push_back(local(route[0], w));
    }
    pts.push_back(pts[0]);
    double length = 0;
    for (std::size_t i = 1; i < pts.size(); ++i) {
        length += std::hypot(pts[i].x - pts[i - 1].x, pts[i].y - pts[i - 1].y);
    }
    double d = length > 0 ? std::fmod(config_.speed * in_seconds(now - origin_), length) : 0;
    for (std::size_t i = 1; i < pts.size(); ++i) {
        const double dx = pts[i].x - pts[i - 1].x;
        const double dy = pts[i].y - pts[i - 1].y;
        const double leg = std::hypot(dx, dy);
        if (d > leg && i + 1 < pts.size()) {
            d -= leg;
            continue;
        }
        const double f = leg > 0 ? std::min(d / leg, 1.0) : 0;
        const double scale = kEarthRadius * kPi / 180.0;
        Place p;
        p.latitude = route[0].latitude + (pts[i - 1].y + f * dy) / scale;
        p.longitude = route[0].longitude +
                      (pts[i - 1].x + f * dx) / scale / std::cos(route[0].latitude * kPi / 180.0);
        p.course = std::fmod(std::atan2(dx, dy) * 180.0 / kPi + 360.0, 360.0);
        return p;
    }
    return {};
}

std::vector<SkyView> ReceiverModel::sky(Nanos now)
{
    std::vector<SkyView> out;
    if (now < sky_at_) {
        return out;
    }
    const double t = in_seconds(now - origin_);
    const bool fixed = has_fix(now);
    for (const auto& s : constellation_) {
        SkyView k;
        k.prn = s.prn;
        const double e = s.elevation + 8.0 * std::sin(2 * kPi * t / 3600.0 + s.phase);
        k.elevation = std::clamp(static_cast<int>(std::lround(e)), 1, 89);
        k.azimuth = static_cast<int>(std::lround(std::fmod(s.azimuth + 0.004 * t, 360.0))) % 360;
        if (fixed) {
            const auto level =
                18.0 + 0.3 * k.elevation + static_cast<double>(random_.between(-2, 2));
            k.snr = std::clamp(static_cast<int>(level), 10, 55);
        }
        out.push_back(k);
    }
    return out;
}

std::vector<std::string> ReceiverModel::epoch(Nanos now)
{
    Report r;
    const std::int64_t utc =
        config_.utc_start + (now - origin_ + sched::kSecond / 2) / sched::kSecond;
    r.time = utc_time(utc);
    r.date = utc_date(utc);
    r.sky = sky(now);
    for (const auto& s : r.sky) {
        if (s.snr > 0 && s.elevation >= kMinElevationUsed && r.used.size() < kMaxUsed) {
            r.used.push_back(s.prn);
        }
    }
    r.fixed = has_fix(now) && r.used.size() >= 4;
    if (!r.fixed) {
        r.used.clear();
    }
    r.place = place(now);
    r.speed = config_.speed;
    r.altitude = config_.altitude;
    std::vector<std::string> out = {gga(r), gsa(r)};
    for (auto& s : gsv(r)) {
        out.push_back(std::move(s));
    }
    out.push_back(rmc(r));
    out.push_back(vtg(r));
    return out;
}

} // namespace mvgps::sim::chip
