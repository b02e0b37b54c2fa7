#include "vbx/mem/base/shared_counter.h"
#include "vbx/mem/mem_tbb_tracker/state/counters.h"

#include <vbx/mem/peaks.h>

constinit MEM_IMMORTAL<MEM_STATS> mem_immortal_global_stats;
constinit MEM_IMMORTAL<MEM_EVENT_TOTALS> mem_immortal_event_totals;

// The peaks are raised to what this block's own addition gave. A second read of `current` could already miss
// the block, if another thread has freed something in between, and the peak would be short of a level that
// was really reached.
void MEM_STATS::add_block(std::uint64_t size) {
    const long long bytes = mem_add(current.bytes, static_cast<long long>(size));
    const long long blocks = mem_add(current.blocks, 1);
    peak.bytes.raise_to(bytes);
    peak.blocks.raise_to(blocks);
    local_peak.bytes.raise_to(bytes);
    local_peak.blocks.raise_to(blocks);
}

void MEM_STATS::remove_block(std::uint64_t size) {
    mem_add(current.bytes, -static_cast<long long>(size));
    mem_add(current.blocks, -1);
}

MEM_STATS mem_get_stats() {
    return mem_global_stats();
}
MEM_BASE_STATS mem_get_global_current() {
    return mem_global_stats().current;
}
MEM_BASE_STATS mem_get_global_peak() {
    return mem_global_stats().peak;
}
MEM_BASE_STATS mem_get_local_peak() {
    return mem_global_stats().local_peak;
}
std::uint64_t mem_get_current_bytes() {
    return static_cast<std::uint64_t>(mem_global_stats().current.bytes.load());
}

MEM_BASE_STATS mem_enter_local_region() {
    const MEM_BASE_STATS saved = mem_global_stats().local_peak;
    mem_global_stats().local_peak = mem_global_stats().current;
    return saved;
}

MEM_BASE_STATS mem_exit_local_region(const MEM_BASE_STATS& saved) {
    MEM_BASE_STATS& local_peak = mem_global_stats().local_peak;
    const MEM_BASE_STATS result = local_peak;
    local_peak.bytes.raise_to(saved.bytes.load());
    local_peak.blocks.raise_to(saved.blocks.load());
    return result;
}
