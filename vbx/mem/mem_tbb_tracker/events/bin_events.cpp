#include "vbx/mem/mem_tbb_tracker/events/bin_events.h"

#include "vbx/mem/mem_tbb_tracker/records/block_shards.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"

#include <new>

namespace {

// Bins and tags can't be opened yet. With none open everything is charged to "Root", which has id 0 in both
// tables.
constexpr MEM_BLOCK_BIN_RECORD ROOT{};

} // namespace

void mem_charge_bin_and_tag(void* block, std::uint64_t size) noexcept {
    try {
        mem_tbb_block_shards->insert(block, ROOT);
    } catch (const std::bad_alloc&) {
        // The block is charged where the free of a block that the shards don't know is credited.
    }
    pbin_stats->add(ROOT.bin_id, size);
    ptag_stats->add(ROOT.tag_id, size);
}

void mem_credit_bin_and_tag(void* block, std::uint64_t size) noexcept {
    const MEM_BLOCK_BIN_RECORD charged = mem_tbb_block_shards->take(block);
    pbin_stats->subtract(charged.bin_id, size);
    ptag_stats->subtract(charged.tag_id, size);
}

void mem_snapshot_bin_and_tag_peaks() {
    pbin_stats->snapshot_peak();
    ptag_stats->snapshot_peak();
}
