// Where a block was allocated and where it was first freed: what the double-free check says before it ends
// the process.
//
//     0x7f..100 --> allocated at parser.cpp:40, freed at parser.cpp:71
//
// A side table, there only while the check and a feature that finds sites are on together. It holds code
// addresses and not sites, because a reset of the tracker forgets those.
#pragma once

#include "vbx/mem/debug_aids/quiet_allocator.h"

#include <tbb/concurrent_hash_map.h>

#include <cstdint>
#include <utility>

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

struct MEM_BLOCK_HISTORY {
    std::uint64_t allocated_at = 0; // code address of the site, 0 when it isn't known
    std::uint64_t freed_at = 0;
};

// The code address of the site of the event that a host's thread is in; 0 when it isn't known. By the stack,
// since frees have nothing else, and since a host can bring the tracker's own handler of allocations behind
// the check's. It describes code that is new, for which it may allocate, like any event of the tracker's: not
// for where such events are turned away.
std::uint64_t mem_site_of_this_event() noexcept;

class MEM_BLOCK_HISTORIES {
  public:
    // Both throw std::bad_alloc.
    void note_allocation(const void* block, std::uint64_t site);
    void note_free(const void* block, std::uint64_t site);

    // While no other call is under way.
    void forget_all() { m_entries.clear(); }

    // One line "MEM: ..." on standard error, unless nothing is known of the block.
    void tell(const void* block);

  private:
    using ENTRY = std::pair<const void* const, MEM_BLOCK_HISTORY>;
    using ENTRIES = tbb::concurrent_hash_map<const void*, MEM_BLOCK_HISTORY, MEM_BLOCK_ADDRESS_COMPARE,
                                             MEM_QUIET_ALLOCATOR<ENTRY>>;
    ENTRIES m_entries;
};
