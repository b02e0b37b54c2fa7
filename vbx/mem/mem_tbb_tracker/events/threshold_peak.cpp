#include "vbx/mem/mem_tbb_tracker/events/threshold_peak.h"

#include "vbx/mem/base/long_operation.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/host/messages.h"
#include "vbx/mem/mem_tbb_tracker/events/gate.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker/records/peak_snapshot.h"
#include "vbx/mem/mem_tbb_tracker/records/site_table.h"
#include "vbx/mem/mem_tbb_tracker/state/counters.h"
#include "vbx/mem/mem_tbb_tracker/state/granularity.h"
#include "vbx/mem/mem_tbb_tracker/state/tracker_use.h"
#include "vbx/mem/out_of_memory/host_call.h"

#include <vbx/mem/peaks.h>
#include <vbx/mem/timelines.h>

#include <algorithm>

namespace {

constexpr auto relaxed = std::memory_order_relaxed;

// The next multiple of the step at or above the total; the totals of a 64-bit process stay far below
// overflow.
std::int64_t next_step(std::int64_t total, std::int64_t step) {
    return (total - 1 + step) / step * step;
}

void copy_current_figures_of_all_sites() {
    const MEM_GATE_CAT cat(*mem_tbb_gate);
    const MEM_SPIN_GUARD guard(mem_site_lock);
    mem_tbb_site_table->for_each([](MEM_ADDRESS_TRACKER& site) {
        site.peak_blocks = site.current_blocks;
        site.peak_bytes = site.current_bytes;
    });
}

void keep_figures_of_this_stretch() {
    const MEM_BLOCK_SCOPE own_heap_use;
    {
        const MEM_STILL_SITES still;
        if (mem_peak_snapshot == nullptr)
            mem_peak_snapshot = new MEM_PEAK_SNAPSHOT;
        mem_peak_snapshot->save(*mem_tbb_site_table);
    }
    // Last, because these can't fail: figures of two stretches must not be mixed.
    pbin_stats->save_peak();
    ptag_stats->save_peak();
}

// With the fast leak check alone the peak is that of the global statistics.
bool searches_global_peak() {
    return mem_current_mask() == MEM_GRANULARITY_CHECK_LEAKS_FAST;
}

bool flushed_stretch_stands(std::int64_t flushed) {
    const MEM_SPIN_GUARD guard(mem_site_lock);
    return mem_peak_snapshot != nullptr && flushed >= mem_threshold_peak_bytes.load(relaxed);
}

} // namespace

bool mem_record_threshold_peak() noexcept {
    const std::int64_t last_peak = mem_threshold_peak_bytes.load(relaxed);
    const std::int64_t total = mem_event_totals.total();
    if (!mem_is_new_peak(total)) {
        // It may just have been recorded by another thread.
        if (mem_threshold_peak_bytes.load(relaxed) == last_peak)
            mem_event_totals.stop_lending_near(total);
        return false;
    }
    const std::int64_t step = mem_fileline_peak_threshold.load(relaxed);
    mem_event_totals.lend_up_to_next_peak();
    mem_threshold_peak_bytes.store(total, relaxed);
    mem_next_peak_bytes.store(2 * total, relaxed);
    mem_msg_debug("Memory tracking: recording peak bytes at %lld bytes, next peak at >= %lld bytes",
                  static_cast<long long>(total),
                  static_cast<long long>(std::min(next_step(total, step), 2 * total)));
    copy_current_figures_of_all_sites();
    return true;
}

void mem_tbb_tracking_flush_peak() try {
    const MEM_LONG_OPERATION operation;
    const MEM_TRACKER_USE use;
    if (!use)
        return;
    const std::int64_t peak = mem_threshold_peak_bytes.load(relaxed);
    if (peak > mem_flushed_peak_bytes.load(relaxed)) {
        keep_figures_of_this_stretch();
        mem_flushed_peak_bytes.store(peak, relaxed);
    }
    if ((mem_current_mask() & MEM_FEATURES) != 0) {
        mem_msg_debug("Memory tracking: memory threshold peak was reset from %lld",
                      static_cast<long long>(peak));
    } else if (searches_global_peak()) {
        KTL_RELAXED_ATOMIC<long long>& global_peak = mem_global_stats().peak.bytes;
        mem_msg_debug("Memory tracking: memory peak was reset from %lld", global_peak.load());
        mem_flushed_peak_bytes.store(
            std::max<std::int64_t>(mem_flushed_peak_bytes.load(relaxed), global_peak.load()), relaxed);
        global_peak.store(0);
    }
    mem_threshold_peak_bytes.store(0, relaxed);
    mem_next_peak_bytes.store(MEM_FIRST_PEAK_BYTES, relaxed);
    mem_user_snapshot_tracking_data();
} catch (const std::bad_alloc&) {
    mem_fail_host_call();
}

void mem_tbb_apply_final_peak() {
    const std::int64_t flushed = mem_flushed_peak_bytes.load(relaxed);
    if (searches_global_peak())
        mem_global_stats().peak.bytes.raise_to(flushed);
    if (!flushed_stretch_stands(flushed))
        return;
    pbin_stats->restore_peak();
    ptag_stats->restore_peak();
    const MEM_SPIN_GUARD guard(mem_site_lock);
    mem_peak_snapshot->restore(*mem_tbb_site_table);
}

void mem_destroy_peak_snapshot() {
    const MEM_SPIN_GUARD guard(mem_site_lock);
    delete mem_peak_snapshot;
    mem_peak_snapshot = nullptr;
}
