#include "vbx/mem/mem_tbb_tracker/events/event_handler.h"

#include "vbx/mem/base/shared_counter.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/host/messages.h"
#include "vbx/mem/mem_tbb_tracker/events/attributed_events.h"
#include "vbx/mem/mem_tbb_tracker/events/bin_events.h"
#include "vbx/mem/mem_tbb_tracker/events/samples.h"
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

// Without a division where the period is a power of two, as it usually is.
bool is_multiple(std::uint64_t tick, std::uint64_t period) {
    return (period & (period - 1)) == 0 ? (tick & (period - 1)) == 0 : tick % period == 0;
}

// Whether this event's tick of the counter is a sample; the very first one is.
[[gnu::always_inline]] inline bool tick_is_sample() {
    const std::uint64_t tick = os_add(mem_sample_counter(), std::uint64_t{1}) - 1;
    return is_multiple(tick, mem_snapshot_period.load(std::memory_order_relaxed));
}

void report_timeline_index(long long total) {
    const unsigned long long index = mem_timeline_index().add(1) - 1;
    if (index % 8 == 0)
        mem_print_stdout("Debug: MEM: Memory tracking: at timeline index %llu with total memory %lld\n",
                         index, total);
}

// Gives the total behind the move; nothing moves without a feature that it runs for.
[[gnu::always_inline]] inline long long move_total(std::uint32_t mask, long long delta) {
    return (mask & MEM_FEATURES) != 0 ? mem_add(mem_tracked_total_bytes(), delta) : 0;
}

// The last step of a sample.
void end_sample(std::uint32_t mask, long long total) {
    if ((mask & MEM_FEATURES) != 0)
        report_timeline_index(total);
}

// The block counts in a sample of the bins either way: it is charged before and credited behind.

void charge_bins(const MEM_EVENT& event) {
    mem_charge_bin_and_tag(event.block, event.size);
    if (event.is_sample)
        mem_sample_bins_and_tags();
}

void credit_bins(const MEM_EVENT& event, bool is_peak) {
    if (is_peak)
        mem_snapshot_bin_and_tag_peaks();
    if (event.is_sample)
        mem_sample_bins_and_tags();
    mem_credit_bin_and_tag(event.block, event.size);
}

// Out of line, as the other is: each has use for all registers.
[[gnu::noinline]] void mem_tbb_on_allocation(void* block, std::uint64_t requested_size, std::uint64_t size) {
    const MEM_EVENT event{mem_current_mask(), tick_is_sample(), block, requested_size, size};
    if ((event.mask & MEM_ATTRIBUTED) != 0)
        mem_attribute_new_block(event);
    if ((event.mask & MEM_GRANULARITY_PER_BIN_DETAILED) != 0)
        charge_bins(event);
    if (event.is_sample)
        mem_sample_labels_and_auxiliary(event.mask);
    if ((event.mask & MEM_COUNTS_GLOBALLY) != 0)
        mem_global_stats().add_block(size);
    // Last: a peak that another thread's free finds in the total is to be found in the tables, too.
    const long long total = move_total(event.mask, static_cast<long long>(size));
    if (event.is_sample)
        end_sample(event.mask, total);
}

[[gnu::noinline]] void mem_tbb_on_free(void* block, std::uint64_t size) {
    const std::uint32_t mask = mem_current_mask();
    // First of all and outside the gate: recording a peak enters it as a cat. The total still holds the
    // block.
    const bool is_peak = (mask & MEM_FEATURES) != 0 && mem_tbb_check_threshold_peak();
    const bool is_tick = tick_is_sample();
    const MEM_EVENT event{mask, is_tick || is_peak, block, 0, size};
    // At once, while the tick has the cache line here: the tables may hold more than the total, not less.
    const long long total = move_total(mask, -static_cast<long long>(size));
    if ((mask & MEM_ATTRIBUTED) != 0)
        mem_credit_freed_block(event);
    if ((mask & MEM_COUNTS_GLOBALLY) != 0)
        mem_global_stats().remove_block(size);
    if ((mask & MEM_GRANULARITY_PER_BIN_DETAILED) != 0)
        credit_bins(event, is_peak);
    if (event.is_sample) {
        mem_sample_labels_and_auxiliary(mask);
        end_sample(mask, total);
    }
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
