// Bytes as the control socket carries them: lower-case hex, two digits a byte.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace mvgps::tool
{

std::string to_hex(std::span<const std::uint8_t> bytes);
// False when the text is not an even number of hex digits.
bool from_hex(std::string_view text, std::vector<std::uint8_t>& bytes);

} // namespace mvgps::tool
