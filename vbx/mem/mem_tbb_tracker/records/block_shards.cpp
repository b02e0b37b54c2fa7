#include "vbx/mem/mem_tbb_tracker/records/block_shards.h"

#include "vbx/mem/base/lock_rank.h"

#include <cstdlib>
#include <memory>
#include <new>

namespace {
constexpr std::size_t BUCKETS_OF_A_NEW_SHARD = 64;
}

MEM_BLOCK_SHARDS::MEM_BLOCK_SHARDS()
    : m_shards(static_cast<std::atomic<SHARD*>*>(std::calloc(COUNT, sizeof(std::atomic<SHARD*>)))) {
    if (m_shards == nullptr)
        throw std::bad_alloc();
}

MEM_BLOCK_SHARDS::~MEM_BLOCK_SHARDS() {
    for (std::size_t index = 0; index < COUNT; ++index)
        delete m_shards[index].load(std::memory_order_relaxed);
    std::free(m_shards);
}

MEM_BLOCK_SHARDS::SHARD& MEM_BLOCK_SHARDS::shard_for_insert(std::size_t index) {
    SHARD* shard = m_shards[index].load(std::memory_order_acquire);
    if (shard != nullptr)
        return *shard;
    auto fresh = std::make_unique<SHARD>(BUCKETS_OF_A_NEW_SHARD);
    // Of two threads that meet here one wins, and both use its shard.
    if (m_shards[index].compare_exchange_strong(shard, fresh.get(), std::memory_order_acq_rel,
                                                std::memory_order_acquire))
        return *fresh.release();
    return *shard;
}

void MEM_BLOCK_SHARDS::insert(const void* block, MEM_BLOCK_BIN_RECORD record) {
    const MEM_RANK_SCOPE accessor_rank(MEM_LOCK_RANK::accessor);
    shard_for_insert(index_of(block)).insert(std::pair(block, record));
}

MEM_BLOCK_BIN_RECORD MEM_BLOCK_SHARDS::take(const void* block) {
    const MEM_RANK_SCOPE accessor_rank(MEM_LOCK_RANK::accessor);
    SHARD* const shard = m_shards[index_of(block)].load(std::memory_order_acquire);
    SHARD::accessor entry;
    if (shard == nullptr || !shard->find(entry, block))
        return {};
    const MEM_BLOCK_BIN_RECORD record = entry->second;
    shard->erase(entry);
    return record;
}
