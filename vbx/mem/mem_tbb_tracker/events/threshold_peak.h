// The threshold peak: what every site, bin and tag held when the process as a whole stood at its highest.
//
//     total
//       |              x recorded: a higher step of T
//     2T+........................................
//       |         x recorded          o not recorded: the step is known
//      T+........................................
//       |   x x recorded: doubled since the last one
//       +-----------------------------------------  frees
//
// The search runs in stretches. A host ends one with mem_tbb_tracking_flush_peak, which keeps the figures of
// the best stretch so far; the shutdown decides between those and the last stretch's own.
//
// The words of the search have no lock: two frees can record one step, and the second just walks again.
#pragma once

#include "vbx/mem/mem_tbb_tracker/events/event_totals.h"
#include "vbx/mem/mem_tbb_tracker/state/settings.h"

#include <atomic>
#include <cstdint>

constexpr std::int64_t MEM_FIRST_PEAK_BYTES = 1024;

// mem_tracked_total_bytes at the last recorded peak of this stretch.
inline constinit std::atomic<std::int64_t> mem_threshold_peak_bytes{0};
// The total at which a peak is recorded at any rate: twice the last one.
inline constinit std::atomic<std::int64_t> mem_next_peak_bytes{MEM_FIRST_PEAK_BYTES};
// The highest peak kept by a flush.
inline constinit std::atomic<std::int64_t> mem_flushed_peak_bytes{0};

// For a total that may be a new peak: when it is one, enters the gate as a cat, copies the current figures of
// every site into its peak figures and gives true.
bool mem_record_threshold_peak() noexcept;

// Whether the total stands on a higher step of the grid than the peak. Asked at every free: two divisions
// would be its longest part, and the usual step is a power of two.
inline bool mem_is_on_higher_step(std::int64_t total, std::int64_t peak, std::int64_t step) {
    if (total <= peak)
        return false;
    if ((step & (step - 1)) == 0)
        return (total ^ peak) >= step;
    return total / step > peak / step;
}

// Whether the total has doubled since the last peak or has entered a higher step of the grid. Then any larger
// one has, too.
inline bool mem_is_new_peak(std::int64_t total) {
    constexpr auto relaxed = std::memory_order_relaxed;
    return total >= mem_next_peak_bytes.load(relaxed) ||
           mem_is_on_higher_step(total, mem_threshold_peak_bytes.load(relaxed),
                                 mem_fileline_peak_threshold.load(relaxed));
}

// Called by a free, outside the gate and before its block leaves the total. Records a new peak and gives true
// when there is one; otherwise a few loads, or a calling back of what threads have borrowed of the total.
inline bool mem_tbb_check_threshold_peak() noexcept {
    return mem_is_new_peak(mem_event_totals.highest_possible_total()) && mem_record_threshold_peak();
}

// Puts the figures in place that the reports are to show. Called by the shutdown, inside the gate as a cat.
void mem_tbb_apply_final_peak();

// Frees what the flushes have kept.
void mem_destroy_peak_snapshot();
