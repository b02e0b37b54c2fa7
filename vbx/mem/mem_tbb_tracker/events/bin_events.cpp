#include "vbx/mem/mem_tbb_tracker/events/bin_events.h"

#include "vbx/mem/mem_tbb_tracker/records/block_shards.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker_profile_bins/profile_bins.h"

#include <new>

namespace {

// Where a block that the shards don't know is credited.
constexpr MEM_BLOCK_BIN_RECORD ROOT{MEM_ROOT_ID, MEM_ROOT_ID, 0};

MEM_BLOCK_BIN_RECORD current_bin_and_tag() {
    MEM_PROFILE_BINS& bins = MEM_PROFILE_BINS::get_instance();
    const std::uint32_t bin_id = bins.m_bins().get_curr_id();
    return {bin_id, bins.m_tags().get_curr_id(), 0};
}

} // namespace

void mem_charge_bin_and_tag(TBBK_THREAD_WORDS* words, void* block, std::uint64_t size) noexcept {
    MEM_BLOCK_BIN_RECORD charged = current_bin_and_tag();
    try {
        mem_tbb_block_shards->insert(block, charged);
    } catch (const std::bad_alloc&) {
        charged = ROOT;
    }
    const MEM_GATE_MOUSE user(mem_pb_stats_gate, words);
    // Neither can fail: the tables have had room for an id since before it could be current.
    pbin_stats->add(charged.bin_id, size);
    ptag_stats->add(charged.tag_id, size);
}

void mem_credit_bin_and_tag(TBBK_THREAD_WORDS* words, void* block, std::uint64_t size) noexcept {
    MEM_BLOCK_BIN_RECORD charged = ROOT;
    mem_tbb_block_shards->take(block, charged);
    const MEM_GATE_MOUSE user(mem_pb_stats_gate, words);
    pbin_stats->subtract(charged.bin_id, size);
    ptag_stats->subtract(charged.tag_id, size);
}

void mem_snapshot_bin_and_tag_peaks() {
    pbin_stats->snapshot_peak();
    ptag_stats->snapshot_peak();
}
