#include "vbx/platform/tbbamalloc/size_table.h"

#include <sched.h>

#include <atomic>
#include <cstdint>

namespace {

struct ENTRY {
    std::uintptr_t block; // 0: empty
    std::size_t size;
};

constexpr std::size_t shard_count = 64;
constexpr std::size_t shard_size = 32768;

// Open addressing with linear probing; taking an entry moves later ones up, so that chains have no holes.
struct SHARD {
    std::atomic<bool> is_locked;
    std::size_t count;
    ENTRY entries[shard_size];
};

// Zero pages until used.
constinit SHARD shards[shard_count] = {};

class SHARD_LOCK {
  public:
    explicit SHARD_LOCK(SHARD& locked) noexcept : shard(locked) {
        while (shard.is_locked.exchange(true, std::memory_order_acquire))
            sched_yield();
    }
    ~SHARD_LOCK() { shard.is_locked.store(false, std::memory_order_release); }
    SHARD_LOCK(const SHARD_LOCK&) = delete;
    SHARD_LOCK& operator=(const SHARD_LOCK&) = delete;

  private:
    SHARD& shard;
};

std::uint64_t hash(std::uintptr_t block) noexcept {
    return (block >> 4) * 0x9E3779B97F4A7C15ULL;
}

SHARD& shard_of(std::uintptr_t block) noexcept {
    return shards[hash(block) >> 58];
}

std::size_t home_of(std::uintptr_t block) noexcept {
    return (hash(block) >> 32) % shard_size;
}

std::size_t next(std::size_t at) noexcept {
    return (at + 1) % shard_size;
}

// Place of the block, or the empty place where it belongs.
std::size_t find(const SHARD& shard, std::uintptr_t block) noexcept {
    std::size_t at = home_of(block);
    while (shard.entries[at].block != 0 && shard.entries[at].block != block)
        at = next(at);
    return at;
}

void close_gap(SHARD& shard, std::size_t gap) noexcept {
    for (std::size_t at = next(gap); shard.entries[at].block != 0; at = next(at)) {
        const std::size_t way_from_home = (at - home_of(shard.entries[at].block)) % shard_size;
        const std::size_t way_from_gap = (at - gap) % shard_size;
        if (way_from_home >= way_from_gap) {
            shard.entries[gap] = shard.entries[at];
            gap = at;
        }
    }
    shard.entries[gap] = {0, 0};
}

} // namespace

bool tbbk_size_table_add(const void* block, std::size_t size) noexcept {
    const std::uintptr_t key = reinterpret_cast<std::uintptr_t>(block);
    SHARD& shard = shard_of(key);
    const SHARD_LOCK lock(shard);
    if (shard.count >= shard_size - shard_size / 8)
        return false;
    ENTRY& entry = shard.entries[find(shard, key)];
    shard.count += entry.block == 0 ? 1 : 0;
    entry = {key, size};
    return true;
}

TBBK_LOOKUP tbbk_size_table_take(const void* block, std::size_t& size) noexcept {
    const std::uintptr_t key = reinterpret_cast<std::uintptr_t>(block);
    SHARD& shard = shard_of(key);
    const SHARD_LOCK lock(shard);
    const std::size_t at = find(shard, key);
    if (shard.entries[at].block == 0)
        return TBBK_LOOKUP::unknown;
    size = shard.entries[at].size;
    close_gap(shard, at);
    --shard.count;
    return TBBK_LOOKUP::found;
}
