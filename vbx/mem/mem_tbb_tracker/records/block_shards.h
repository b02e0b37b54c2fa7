// The live blocks and the bins and tags that they are charged to.
//
// Not cleared by a reset, and used outside the gate. While a record is locked no other lock is taken.
#pragma once

#include "vbx/mem/mem_tbb_tracker/records/block_map.h"

#include <cstdint>

struct alignas(16) MEM_BLOCK_BIN_RECORD {
    std::uint32_t bin_id = 0;
    std::uint32_t tag_id = 0;
    std::uint32_t mark = 0; // the map's own
};

using MEM_BLOCK_SHARDS = MEM_BLOCK_MAP<MEM_BLOCK_BIN_RECORD>;

// From tracker start to teardown.
inline constinit MEM_BLOCK_SHARDS* mem_tbb_block_shards = nullptr;
