// Bytes as hexadecimal text, both ways: what the options take and what the output shows.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mvgps::ctl
{

// Pairs of hex digits, either case; spaces between them are allowed. False on anything else
// (an odd digit count, a stray character).
bool parse_hex(std::string_view text, std::vector<std::uint8_t>& bytes);
// Lower-case pairs, joined by `separator` ("" for the compact form).
std::string to_hex(std::span<const std::uint8_t> bytes, std::string_view separator = "");

} // namespace mvgps::ctl
