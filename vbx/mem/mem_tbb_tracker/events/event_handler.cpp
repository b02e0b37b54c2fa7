#include "vbx/mem/mem_tbb_tracker/events/event_handler.h"

#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/host/messages.h"
#include "vbx/mem/mem_tbb_tracker/events/attributed_events.h"
#include "vbx/mem/mem_tbb_tracker/events/bin_events.h"
#include "vbx/mem/mem_tbb_tracker/events/threshold_peak.h"
#include "vbx/mem/mem_tbb_tracker/state/counters.h"
#include "vbx/mem/mem_tbb_tracker/state/granularity.h"
#include "vbx/mem/mem_tbb_tracker/state/settings.h"

namespace {

void count_turned_away(std::uint64_t requested_size, std::uint64_t allocated_size, bool is_allocation) {
    constexpr auto relaxed = std::memory_order_relaxed;
    MEM_FALLBACK_COUNTERS& counters = mem_fallback_counters;
    if (is_allocation) {
        counters.allocations.fetch_add(1, relaxed);
        counters.requested_total.fetch_add(requested_size, relaxed);
        counters.allocated_total.fetch_add(allocated_size, relaxed);
        counters.requested_outstanding.fetch_add(requested_size, relaxed);
        counters.allocated_outstanding.fetch_add(allocated_size, relaxed);
    } else {
        counters.frees.fetch_add(1, relaxed);
        counters.requested_outstanding.fetch_sub(requested_size, relaxed);
        counters.allocated_outstanding.fetch_sub(allocated_size, relaxed);
    }
}

// Whether this event's tick of the counter is a sample; the very first one is.
bool tick_is_sample() {
    const std::uint64_t tick = mem_sample_counter.fetch_add(1, std::memory_order_relaxed);
    return tick % mem_snapshot_period.load(std::memory_order_relaxed) == 0;
}

void report_timeline_index(long long total) {
    const unsigned long long index = mem_timeline_index().add(1) - 1;
    if (index % 8 == 0)
        mem_print_stdout("Debug: MEM: Memory tracking: at timeline index %llu with total memory %lld\n",
                         index, total);
}

void move_total(std::uint32_t mask, long long delta, bool sample) {
    if ((mask & MEM_FEATURES) == 0)
        return;
    const long long total = mem_tracked_total_bytes().add(delta);
    if (sample)
        report_timeline_index(total);
}

void mem_tbb_on_allocation(void* block, std::uint64_t requested_size, std::uint64_t size) {
    const std::uint32_t mask = mem_current_mask();
    const bool sample = tick_is_sample();
    if ((mask & MEM_ATTRIBUTED) != 0)
        mem_attribute_new_block(mask, block, requested_size, size);
    if ((mask & MEM_GRANULARITY_PER_BIN_DETAILED) != 0)
        mem_charge_bin_and_tag(block, size);
    if ((mask & MEM_COUNTS_GLOBALLY) != 0)
        mem_global_stats().add_block(size);
    move_total(mask, static_cast<long long>(size), sample);
}

void mem_tbb_on_free(void* block, std::uint64_t size) {
    const std::uint32_t mask = mem_current_mask();
    // First of all and outside the gate: recording a peak enters it as a cat. The total still holds the
    // block.
    const bool peak = (mask & MEM_FEATURES) != 0 && mem_tbb_check_threshold_peak();
    const bool sample = tick_is_sample() || peak;
    if ((mask & MEM_ATTRIBUTED) != 0)
        mem_credit_freed_block(mask, block, size);
    if ((mask & MEM_COUNTS_GLOBALLY) != 0)
        mem_global_stats().remove_block(size);
    if ((mask & MEM_GRANULARITY_PER_BIN_DETAILED) != 0) {
        if (peak)
            mem_snapshot_bin_and_tag_peaks();
        mem_credit_bin_and_tag(block, size);
    }
    move_total(mask, -static_cast<long long>(size), sample);
}

} // namespace

void mem_tbb_event_handler(void* block, std::uint64_t requested_size, std::uint64_t allocated_size,
                           bool is_allocation) {
    if (mem_thread_events_are_turned_away()) {
        count_turned_away(requested_size, allocated_size, is_allocation);
        return;
    }
    if (!mem_tracker_objects_exist.load(std::memory_order_acquire)) [[unlikely]]
        return;
    const MEM_IN_TRACKER_SCOPE in_tracker;
    if (is_allocation)
        mem_tbb_on_allocation(block, requested_size != 0 ? requested_size : allocated_size, allocated_size);
    else
        mem_tbb_on_free(block, allocated_size);
}
