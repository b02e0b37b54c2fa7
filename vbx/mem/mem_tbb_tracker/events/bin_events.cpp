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
    MEM_BLOCK_BIN_RECORD charged = ROOT;
    try {
        mem_tbb_block_shards->insert(block, charged);
    } catch (const std::bad_alloc&) {
        // Charged where the free of a block that the shards don't know is credited.
        charged = ROOT;
    }
    try {
        pbin_stats->add(charged.bin_id, size);
        ptag_stats->add(charged.tag_id, size);
    } catch (const std::bad_alloc&) {
        // The first charge of an id, and no memory for its entry: the id has no figures.
    }
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
