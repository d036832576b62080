// Pool: every block carries a hidden header (tag, size, allocation serial) and a guard after
// its end; the pool keeps per-tag accounting and the live set for the leak report, and asks
// the low-resources simulation whether an allocation fails.
#include "host/kernel/internal.h"
#include "host/kernel/kernel.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "host/verifier/faults.h"
#include "host/verifier/verifier.h"

namespace mvgps::kernel
{
namespace
{

struct Header {
    ULONG tag;
    ULONG paged;
    std::uint64_t size;
    std::uint64_t serial;
    std::uint64_t cookie; // kCookie ^ address of the block, next to it to catch an underrun
};
static_assert(sizeof(Header) % 16 == 0, "blocks keep the pool's 16-byte alignment");

constexpr std::uint64_t kCookie = 0x6D76677370D0D0D0ULL;
constexpr std::size_t kGuardBytes = 16;
constexpr unsigned char kGuardByte = 0xA5;
constexpr unsigned char kFreshByte = 0xCD; // what ExAllocatePoolWithTag's caller gets
constexpr unsigned char kFreedByte = 0xDD;
constexpr std::size_t kFreedMemory = 4096; // recently freed addresses kept to name a double free

// BAD_POOL_CALLER first parameters.
constexpr ULONG_PTR kFreedTwice = 0x07;
constexpr ULONG_PTR kWrongTag = 0x0A;
constexpr ULONG_PTR kZeroTag = 0x9B;
constexpr ULONG_PTR kNotPool = 0x46;

struct Pool {
    std::mutex mutex;
    std::map<ULONG, TagStats> tags;
    std::unordered_set<const void*> live;
    // Recently freed addresses with the serial of their free; the queue drops the oldest
    // (its stale entries, for addresses allocated again since, are skipped).
    std::unordered_map<const void*, std::uint64_t> freed;
    std::deque<std::pair<const void*, std::uint64_t>> freed_order;
    std::uint64_t frees = 0;
    std::uint64_t serial = 0;
};

// Never destroyed: threads may still free pool while the process exits.
Pool& pool()
{
    static Pool* p = new Pool;
    return *p;
}

Header* header_of(const void* block)
{
    return reinterpret_cast<Header*>(const_cast<char*>(static_cast<const char*>(block)) -
                                     sizeof(Header));
}

std::uint64_t cookie_for(const void* block)
{
    return kCookie ^ reinterpret_cast<std::uint64_t>(block);
}

void check_irql(const char* caller, bool paged)
{
    KIRQL irql = detail::this_thread().irql;
    if (irql > DISPATCH_LEVEL || (paged && irql > APC_LEVEL)) {
        verifier::bugcheck(verifier::kDriverVerifierViolation,
                           std::string(caller) + (paged ? " of paged pool at " : " at ") +
                               detail::irql_name(irql),
                           irql);
    }
}

void* allocate(const char* caller, bool paged, std::size_t size, ULONG tag, bool zero)
{
    check_irql(caller, paged);
    if (tag == 0) {
        verifier::bugcheck(verifier::kBadPoolCaller, std::string(caller) + " with pool tag 0",
                           kZeroTag, size);
    }
    Pool& p = pool();
    std::unique_lock lock(p.mutex);
    TagStats& stats = p.tags[tag];
    stats.tag = tag;
    if (verifier::inject(verifier::Site::Pool, tag) != 0) {
        ++stats.failures;
        lock.unlock();
        char text[64];
        std::snprintf(text, sizeof text, "pool: injected failure of %zu bytes, tag ", size);
        verifier::note(text + tag_text(tag));
        return nullptr;
    }
    auto* raw = static_cast<unsigned char*>(std::malloc(sizeof(Header) + size + kGuardBytes));
    if (raw == nullptr) {
        ++stats.failures;
        return nullptr;
    }
    void* block = raw + sizeof(Header);
    *header_of(block) = {tag, paged, size, ++p.serial, cookie_for(block)};
    std::memset(block, zero ? 0 : kFreshByte, size);
    std::memset(raw + sizeof(Header) + size, kGuardByte, kGuardBytes);
    p.live.insert(block);
    p.freed.erase(block);
    ++stats.allocations;
    ++stats.live_blocks;
    stats.live_bytes += size;
    return block;
}

bool guard_intact(const Header* h)
{
    const auto* guard = reinterpret_cast<const unsigned char*>(h + 1) + h->size;
    return std::all_of(guard, guard + kGuardBytes, [](unsigned char b) { return b == kGuardByte; });
}

void release(const char* caller, void* block, ULONG tag)
{
    auto address = reinterpret_cast<ULONG_PTR>(block);
    Pool& p = pool();
    std::lock_guard lock(p.mutex);
    if (p.live.count(block) == 0) {
        bool twice = p.freed.count(block) != 0;
        verifier::bugcheck(verifier::kBadPoolCaller,
                           std::string(caller) + (twice ? " of pool that was already freed"
                                                        : " of an address that is not pool"),
                           twice ? kFreedTwice : kNotPool, address);
    }
    Header* h = header_of(block);
    if (h->cookie != cookie_for(block)) {
        verifier::bugcheck(verifier::kBadPoolHeader,
                           std::string(caller) + ": the block's header was overwritten", address);
    }
    check_irql(caller, h->paged != 0);
    if (!guard_intact(h)) {
        verifier::bugcheck(verifier::kSpecialPoolCorruption,
                           std::string(caller) + ": bytes past the end of the " +
                               std::to_string(h->size) + "-byte block were written",
                           address, h->size);
    }
    if (tag != 0 && tag != h->tag) {
        verifier::bugcheck(verifier::kBadPoolCaller,
                           std::string(caller) + " with tag " + tag_text(tag) +
                               " of a block allocated with tag " + tag_text(h->tag),
                           kWrongTag, address, h->tag, tag);
    }
    TagStats& stats = p.tags[h->tag];
    ++stats.frees;
    --stats.live_blocks;
    stats.live_bytes -= h->size;
    p.live.erase(block);
    p.freed[block] = ++p.frees;
    p.freed_order.emplace_back(block, p.frees);
    if (p.freed_order.size() > kFreedMemory) {
        auto [old, serial] = p.freed_order.front();
        p.freed_order.pop_front();
        auto it = p.freed.find(old);
        if (it != p.freed.end() && it->second == serial) {
            p.freed.erase(it);
        }
    }
    std::memset(h, kFreedByte, sizeof(Header) + h->size + kGuardBytes);
    std::free(h);
}

} // namespace

std::string tag_text(ULONG tag)
{
    std::string text = "'";
    for (int i = 0; i < 4; ++i) {
        char c = static_cast<char>((tag >> (8 * i)) & 0xFF);
        text += (c >= 0x20 && c < 0x7F) ? c : '.';
    }
    char value[24];
    std::snprintf(value, sizeof value, "' (0x%08X)", tag);
    return text + value;
}

std::vector<TagStats> pool_stats()
{
    Pool& p = pool();
    std::lock_guard lock(p.mutex);
    std::vector<TagStats> out;
    for (const auto& [tag, stats] : p.tags) {
        out.push_back(stats);
    }
    return out;
}

TagStats pool_stats(ULONG tag)
{
    Pool& p = pool();
    std::lock_guard lock(p.mutex);
    auto it = p.tags.find(tag);
    return it == p.tags.end() ? TagStats{.tag = tag} : it->second;
}

LeakReport leak_report(std::span<const ULONG> tags)
{
    Pool& p = pool();
    std::map<ULONG, TagLeak> by_tag;
    {
        std::lock_guard lock(p.mutex);
        for (const void* block : p.live) {
            const Header* h = header_of(block);
            if (!tags.empty() && std::find(tags.begin(), tags.end(), h->tag) == tags.end()) {
                continue;
            }
            TagLeak& leak = by_tag.try_emplace(h->tag, TagLeak{h->tag, 0, {}}).first->second;
            leak.bytes += h->size;
            leak.blocks.push_back({block, h->size, h->serial});
        }
    }
    LeakReport report;
    for (auto& [tag, leak] : by_tag) {
        std::sort(leak.blocks.begin(), leak.blocks.end(),
                  [](const LeakedBlock& a, const LeakedBlock& b) { return a.serial < b.serial; });
        char line[128];
        std::snprintf(line, sizeof line, "pool leak: %zu block(s), %zu bytes under tag ",
                      leak.blocks.size(), leak.bytes);
        report.text += line + tag_text(tag) + '\n';
        for (const LeakedBlock& b : leak.blocks) {
            std::snprintf(line, sizeof line, "  allocation #%" PRIu64 " at %p: %zu bytes\n",
                          b.serial, b.address, b.size);
            report.text += line;
        }
        report.tags.push_back(std::move(leak));
    }
    return report;
}

PoolFault fail_nth(std::uint64_t n, ULONG tag)
{
    PoolFault r = fail_every(tag);
    r.when = PoolFault::When::Nth;
    r.n = n;
    return r;
}

PoolFault fail_every(ULONG tag)
{
    PoolFault r;
    r.site = verifier::Site::Pool;
    r.when = PoolFault::When::Every;
    if (tag != 0) {
        r.what = tag;
    }
    r.status = STATUS_INSUFFICIENT_RESOURCES;
    return r;
}

PoolFault fail_random(std::uint64_t seed, double probability, ULONG tag)
{
    PoolFault r = fail_every(tag);
    r.when = PoolFault::When::Random;
    r.seed = seed;
    r.probability = probability;
    return r;
}

} // namespace mvgps::kernel

using namespace mvgps::kernel;

extern "C" {

PVOID ExAllocatePoolWithTag(POOL_TYPE PoolType, SIZE_T NumberOfBytes, ULONG Tag)
{
    return allocate("ExAllocatePoolWithTag", PoolType == PagedPool, NumberOfBytes, Tag, false);
}

PVOID ExAllocatePool2(POOL_FLAGS Flags, SIZE_T NumberOfBytes, ULONG Tag)
{
    bool paged = (Flags & POOL_FLAG_PAGED) != 0;
    if (paged == ((Flags & POOL_FLAG_NON_PAGED) != 0)) {
        return nullptr; // exactly one kind of pool must be asked for
    }
    return allocate("ExAllocatePool2", paged, NumberOfBytes, Tag,
                    (Flags & POOL_FLAG_UNINITIALIZED) == 0);
}

VOID ExFreePoolWithTag(PVOID P, ULONG Tag)
{
    release("ExFreePoolWithTag", P, Tag);
}

VOID ExFreePool(PVOID P)
{
    release("ExFreePool", P, 0);
}

} // extern "C"
