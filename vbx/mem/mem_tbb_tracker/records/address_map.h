// The live blocks and the sites that they are charged to.
//
//     block 0x7f..100 --> site token.cpp:40, thread 812
//     block 0x7f..180 --> site token.cpp:40, thread 815
//
// A concurrent map whose nodes come from a pool of its own; the pool gets raw memory from the ordinary heap.
// A held accessor locks its entry, which the lock analysis does not see: under one, only the site lock may be
// taken, and only mem_get_address_tracker does.
#pragma once

#include "vbx/mem/base/annotated_allocator.h"
#include "vbx/mem/base/lock_rank.h"

#include <vbx/mem/trackers.h>

#ifndef TBB_PREVIEW_MEMORY_POOL
#define TBB_PREVIEW_MEMORY_POOL 1
#endif
#include <tbb/concurrent_hash_map.h>
#include <tbb/memory_pool.h>

#include <cstdint>
#include <utility>

struct MEM_BLOCK_RECORD {
    MEM_ADDRESS_TRACKER* address_tracker_ptr = nullptr; // not owned
    std::uint32_t thread_id = 0;                        // of the allocating thread, with the per-fileline bit
};

// The heap's slots begin at multiples of 16, in slabs of 2^14 bytes. Neighbours of a slab stay near each
// other, and the number of the slab fills the gaps that larger slots leave. A hash that keeps the low zero
// bits leaves three of four buckets empty and makes chains of 14 entries.
struct MEM_BLOCK_ADDRESS_COMPARE {
    static std::size_t hash(const void* block) {
        const auto address = reinterpret_cast<std::uintptr_t>(block);
        return (address >> 4) ^ (address >> 14);
    }
    static bool equal(const void* a, const void* b) { return a == b; }
};

// Where the pool gets its raw memory from: the ordinary heap. Most requests come from inside an event, but
// the pool also gives memory back when tbbmalloc winds itself up at process end; that event must not be taken
// for the free of a block that nobody knows.
class MEM_POOL_MEMORY {
  public:
    using value_type = char;
    // Throws std::bad_alloc.
    char* allocate(std::size_t count);
    void deallocate(char* memory, std::size_t count);
};

class MEM_ADDRESS_MAP {
  public:
    // Throws std::runtime_error "Can't create pool".
    MEM_ADDRESS_MAP();

    // Enters a block; one that is there already is overwritten, because its free was never seen. Throws
    // std::bad_alloc, and the block may be in the map then.
    void insert(const void* block, const MEM_BLOCK_RECORD& record);

    // Takes a block out. False when it isn't there.
    bool take(const void* block, MEM_BLOCK_RECORD& record);

    // Calls visit(const MEM_BLOCK_RECORD&) with the block's entry locked. False when it isn't there.
    template <class VISIT>
    bool visit(const void* block, VISIT visit) {
        const MEM_RANK_SCOPE accessor_rank(MEM_LOCK_RANK::accessor);
        ENTRIES::accessor entry;
        if (!m_entries.find(entry, block))
            return false;
        visit(std::as_const(entry->second));
        return true;
    }

    // Forgets all blocks; their nodes go back to the pool. Only for a cat of the gate: nothing else may be
    // using the map.
    void clear() { m_entries.clear(); }

  private:
    using POOL = tbb::memory_pool<MEM_POOL_MEMORY>;
    using ENTRY = std::pair<const void* const, MEM_BLOCK_RECORD>;
    template <class T>
    using POOL_ALLOCATOR = tbb::memory_pool_allocator<T>;
    using ALLOCATOR = MEM_ANNOTATED_ALLOCATOR<POOL_ALLOCATOR, ENTRY>;
    using ENTRIES =
        tbb::concurrent_hash_map<const void*, MEM_BLOCK_RECORD, MEM_BLOCK_ADDRESS_COMPARE, ALLOCATOR>;

    // In this order: the entries go back to the pool before it goes.
    POOL m_pool;
    ENTRIES m_entries;
};

// From tracker start to teardown.
inline constinit MEM_ADDRESS_MAP* mem_tbb_address_map = nullptr;
