// Where a block was allocated and where it was first freed: what the double-free check says before it ends
// the process.
//
//     0x7f..100 --> allocated at parser.cpp:40, freed at parser.cpp:71
//
// A side table, there only while the check and a feature that finds sites are on together. It holds code
// addresses and not sites, because a reset of the tracker forgets those.
#pragma once

#include "vbx/mem/base/annotated_allocator.h"
#include "vbx/mem/mem_tbb_tracker/records/address_map.h"

#include <tbb/concurrent_hash_map.h>

#include <cstdint>
#include <memory>
#include <utility>

struct MEM_BLOCK_HISTORY {
    std::uint64_t allocated_at = 0; // code address of the site, 0 when it isn't known
    std::uint64_t freed_at = 0;
};

class MEM_BLOCK_HISTORIES {
  public:
    // For the event of a block, behind the tracker's own handler, from the thread that makes it. The events
    // that the tracker turns away leave no trace. Throws std::bad_alloc.
    void note_allocation(const void* block);
    void note_free(const void* block);

    // One line "MEM: ..." on standard error.
    void tell(const void* block);

  private:
    using ENTRY = std::pair<const void* const, MEM_BLOCK_HISTORY>;
    using ENTRIES = tbb::concurrent_hash_map<const void*, MEM_BLOCK_HISTORY, MEM_BLOCK_ADDRESS_COMPARE,
                                             MEM_ANNOTATED_ALLOCATOR<std::allocator, ENTRY>>;
    ENTRIES m_entries;
};
