// The live blocks and the sites that they are charged to.
//
//     block 0x7f..100 --> site token.cpp:40, thread 812
//     block 0x7f..180 --> site token.cpp:40, thread 815
//
// While a record is visited only the lock of its site may be taken, and only mem_get_address_tracker does.
#pragma once

#include "vbx/mem/mem_tbb_tracker/records/block_map.h"
#include "vbx/mem/mem_tbb_tracker/records/site.h"

#include <cstdint>

struct MEM_BLOCK_RECORD {
    MEM_SITE* address_tracker_ptr = nullptr; // not owned
    std::uint32_t thread_id = 0;             // of the allocating thread, with the per-fileline bit
    std::uint32_t mark = 0;                  // the map's own
};

using MEM_ADDRESS_MAP = MEM_BLOCK_MAP<MEM_BLOCK_RECORD>;

// From tracker start to teardown.
inline constinit MEM_ADDRESS_MAP* mem_tbb_address_map = nullptr;
