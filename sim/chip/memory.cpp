#include "sim/chip/memory.h"

namespace mvgps::sim::chip
{

namespace
{

bool fits(std::uint32_t address, std::size_t count)
{
    return count <= std::size_t{0x100000000ull - address};
}

} // namespace

bool ChipMemory::write(std::uint32_t address, std::span<const std::uint8_t> bytes)
{
    return store(address, bytes, false);
}

bool ChipMemory::load(std::uint32_t address, std::span<const std::uint8_t> bytes)
{
    return store(address, bytes, true);
}

bool ChipMemory::store(std::uint32_t address, std::span<const std::uint8_t> bytes, bool force)
{
    if (!fits(address, bytes.size())) {
        return false;
    }
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const auto a = static_cast<std::uint32_t>(address + i);
        if (!force && read_only(a)) {
            continue;
        }
        auto [it, fresh] = pages_.try_emplace(a >> kPageBits);
        if (fresh) {
            it->second.fill(0);
        }
        it->second[a & ((1u << kPageBits) - 1)] = bytes[i];
    }
    return true;
}

std::vector<std::uint8_t> ChipMemory::read(std::uint32_t address, std::size_t count) const
{
    if (!fits(address, count)) {
        return {};
    }
    std::vector<std::uint8_t> out(count);
    for (std::size_t i = 0; i < count; ++i) {
        out[i] = byte(static_cast<std::uint32_t>(address + i));
    }
    return out;
}

std::uint8_t ChipMemory::byte(std::uint32_t address) const
{
    auto it = pages_.find(address >> kPageBits);
    return it == pages_.end() ? 0 : it->second[address & ((1u << kPageBits) - 1)];
}

void ChipMemory::set_read_only(std::uint32_t address, std::uint32_t count)
{
    read_only_.emplace_back(address, count);
}

void ChipMemory::clear()
{
    pages_.clear();
}

bool ChipMemory::read_only(std::uint32_t address) const
{
    for (auto [start, count] : read_only_) {
        if (address - start < count) {
            return true;
        }
    }
    return false;
}

} // namespace mvgps::sim::chip
