#include "sim/chip/frame.h"

#include <cstdio>

namespace mvgps::sim::chip
{

std::uint16_t crc16(std::span<const std::uint8_t> bytes)
{
    std::uint16_t crc = 0;
    for (std::uint8_t b : bytes) {
        crc ^= static_cast<std::uint16_t>(b << 8);
        for (int i = 0; i < 8; ++i) {
            crc = static_cast<std::uint16_t>((crc & 0x8000) ? (crc << 1) ^ 0x1021 : crc << 1);
        }
    }
    return crc;
}

std::vector<std::uint8_t> encode(const Frame& f)
{
    const std::size_t n = f.payload.size();
    const std::size_t length = n != 0 ? n + 4 : 2;
    std::vector<std::uint8_t> out;
    out.reserve(length + 6);
    out.push_back(kSync);
    out.push_back(static_cast<std::uint8_t>((f.crc ? 0x80 : 0) | ((length >> 8) & 0x0F)));
    out.push_back(static_cast<std::uint8_t>(length));
    out.push_back(f.pid);
    out.push_back(f.sid);
    if (n != 0) {
        out.push_back(static_cast<std::uint8_t>(n >> 8));
        out.push_back(static_cast<std::uint8_t>(n));
        out.insert(out.end(), f.payload.begin(), f.payload.end());
    }
    if (f.crc) {
        const std::uint16_t c = crc16(std::span(out).subspan(1));
        out.push_back(static_cast<std::uint8_t>(c >> 8));
        out.push_back(static_cast<std::uint8_t>(c));
    }
    out.push_back(kSync);
    return out;
}

bool valid_ids(std::uint8_t pid, std::uint8_t sid)
{
    return (pid <= 50 || pid == 255) && sid <= 14;
}

std::string describe(const Frame& f)
{
    char head[48];
    std::snprintf(head, sizeof head, "%02x/%02x%s [%zu]", f.pid, f.sid, f.crc ? "" : " nocrc",
                  f.payload.size());
    std::string s = head;
    for (std::uint8_t b : f.payload) {
        char hex[4];
        std::snprintf(hex, sizeof hex, " %02x", b);
        s += hex;
    }
    return s;
}

void FrameParser::feed(std::span<const std::uint8_t> bytes, const Sink& sink)
{
    buf_.insert(buf_.end(), bytes.begin(), bytes.end());
    scan(sink);
}

void FrameParser::resync(const Sink& sink)
{
    if (buf_.empty()) {
        return;
    }
    buf_.erase(buf_.begin());
    scan(sink);
}

void FrameParser::scan(const Sink& sink)
{
    std::size_t pos = 0;
    for (;;) {
        while (pos < buf_.size() && buf_[pos] != kSync) {
            ++(buf_[pos] == kPad ? counters_.padding : counters_.garbage);
            ++pos;
        }
        const std::size_t avail = buf_.size() - pos;
        if (avail < 5) {
            break;
        }
        const std::uint8_t* p = buf_.data() + pos;
        const bool crc = (p[1] & 0x80) != 0;
        const std::size_t length = static_cast<std::size_t>(p[1] & 0x0F) << 8 | p[2];
        if ((p[1] & 0x70) != 0 || !valid_ids(p[3], p[4]) || length < 2 || length == 3) {
            ++counters_.bad_header;
            ++pos;
            continue;
        }
        const std::size_t total = length + (crc ? 6 : 4);
        if (avail < 7 && length > 2) {
            break;
        }
        if (length > 2 && (static_cast<std::size_t>(p[5]) << 8 | p[6]) != length - 4) {
            ++counters_.bad_header;
            ++pos;
            continue;
        }
        if (avail < total) {
            break;
        }
        Frame f;
        f.pid = p[3];
        f.sid = p[4];
        f.crc = crc;
        if (length > 2) {
            f.payload.assign(p + 7, p + 7 + (length - 4));
        }
        Verdict v = Verdict::Good;
        if (p[total - 1] != kSync) {
            v = Verdict::BadTail;
            ++counters_.bad_tail;
        } else if (crc && crc16(std::span(p + 1, length + 2)) !=
                              (static_cast<std::uint16_t>(p[length + 3] << 8) | p[length + 4])) {
            v = Verdict::BadCrc;
            ++counters_.bad_crc;
        } else {
            ++counters_.frames;
        }
        pos += v == Verdict::Good ? total : 1;
        sink(f, v);
    }
    buf_.erase(buf_.begin(), buf_.begin() + static_cast<std::ptrdiff_t>(pos));
}

} // namespace mvgps::sim::chip
