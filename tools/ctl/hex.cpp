#include "tools/ctl/hex.h"

namespace mvgps::ctl
{

static int digit(char c)
{
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

bool parse_hex(std::string_view text, std::vector<std::uint8_t>& bytes)
{
    bytes.clear();
    int high = -1;
    for (char c : text) {
        if (c == ' ' && high < 0) {
            continue;
        }
        int value = digit(c);
        if (value < 0) {
            return false;
        }
        if (high < 0) {
            high = value;
        } else {
            bytes.push_back(static_cast<std::uint8_t>(high << 4 | value));
            high = -1;
        }
    }
    return high < 0;
}

std::string to_hex(std::span<const std::uint8_t> bytes, std::string_view separator)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (std::size_t i = 0; i < bytes.size(); i++) {
        if (i != 0) {
            text += separator;
        }
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0xF];
    }
    return text;
}

} // namespace mvgps::ctl
