// The live blocks and the bins and tags that they are charged to, spread over 4096 concurrent maps.
//
// Not cleared by a reset, and used outside the gate. Under an accessor no lock is taken.
#pragma once

#include "vbx/mem/base/annotated_allocator.h"

#include <tbb/concurrent_hash_map.h>
#include <tbb/scalable_allocator.h>

#include <atomic>
#include <cstdint>
#include <utility>

struct MEM_BLOCK_BIN_RECORD {
    std::uint32_t bin_id = 0;
    std::uint32_t tag_id = 0;
};

class MEM_BLOCK_SHARDS {
  public:
    static constexpr std::size_t COUNT = 4096;

    MEM_BLOCK_SHARDS();
    ~MEM_BLOCK_SHARDS();
    MEM_BLOCK_SHARDS(const MEM_BLOCK_SHARDS&) = delete;
    MEM_BLOCK_SHARDS& operator=(const MEM_BLOCK_SHARDS&) = delete;

    // Enters a block; an entry that is there already stays. Throws std::bad_alloc, and the
    // block may be in the map then.
    void insert(const void* block, MEM_BLOCK_BIN_RECORD record);

    // Takes a block out. An unknown one gives bin 0 and tag 0.
    MEM_BLOCK_BIN_RECORD take(const void* block);

  private:
    struct COMPARE {
        // The shard has used the bits below.
        static std::size_t hash(const void* block) { return reinterpret_cast<std::uintptr_t>(block) >> 12; }
        static bool equal(const void* a, const void* b) { return a == b; }
    };
    // The heap itself and not oneTBB's choice of one: that is made by a dlopen at its first allocation, which
    // would be inside an event.
    using ENTRY = std::pair<const void* const, MEM_BLOCK_BIN_RECORD>;
    using SHARD = tbb::concurrent_hash_map<const void*, MEM_BLOCK_BIN_RECORD, COMPARE,
                                           MEM_ANNOTATED_ALLOCATOR<tbb::scalable_allocator, ENTRY>>;

    static std::size_t index_of(const void* block) { return reinterpret_cast<std::uintptr_t>(block) & 0xFFF; }
    SHARD& shard_for_insert(std::size_t index);

    // A shard comes into being with its first block: 4096 maps with 64 buckets each would cost every process
    // 22 MB and 25 ms at start, also where nobody asks for bins. The array stays in untouched zero pages.
    std::atomic<SHARD*>* m_shards;
};

// From tracker start to teardown.
inline constinit MEM_BLOCK_SHARDS* mem_tbb_block_shards = nullptr;
