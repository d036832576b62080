// The chip's address space as the memory commands see it: sparse, zero where nothing was
// written. Ranges can be made read-only, so that writes there are accepted but do not stick
// (what a verify-after-write must notice).
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <span>
#include <utility>
#include <vector>

namespace mvgps::sim::chip
{

class ChipMemory
{
  public:
    // False (and nothing written) when the range wraps past the top of the address space.
    bool write(std::uint32_t address, std::span<const std::uint8_t> bytes);
    // The chip's own values: they stick in read-only ranges too.
    bool load(std::uint32_t address, std::span<const std::uint8_t> bytes);
    // Empty when the range wraps past the top of the address space.
    std::vector<std::uint8_t> read(std::uint32_t address, std::size_t count) const;
    std::uint8_t byte(std::uint32_t address) const;
    void set_read_only(std::uint32_t address, std::uint32_t count);
    // Forgets every value; read-only ranges are part of the chip and stay.
    void clear();

  private:
    static constexpr std::uint32_t kPageBits = 12;
    using Page = std::array<std::uint8_t, 1u << kPageBits>;

    bool read_only(std::uint32_t address) const;
    bool store(std::uint32_t address, std::span<const std::uint8_t> bytes, bool force);

    std::map<std::uint32_t, Page> pages_;
    std::vector<std::pair<std::uint32_t, std::uint32_t>> read_only_;
};

} // namespace mvgps::sim::chip
