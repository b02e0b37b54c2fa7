#include "vbx/mem/mem_tbb_tracker/state/counters.h"

#include <vbx/mem/peaks.h>

constinit MEM_IMMORTAL<MEM_STATS> mem_immortal_global_stats;
constinit MEM_IMMORTAL<KTL_RELAXED_ATOMIC<unsigned long long>> mem_immortal_timeline_index;

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
