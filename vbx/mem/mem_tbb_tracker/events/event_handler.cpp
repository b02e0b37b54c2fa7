#include "vbx/mem/mem_tbb_tracker/events/event_handler.h"

#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/host/messages.h"
#include "vbx/mem/mem_tbb_tracker/events/attributed_events.h"
#include "vbx/mem/mem_tbb_tracker/events/bin_events.h"
#include "vbx/mem/mem_tbb_tracker/events/event_totals.h"
#include "vbx/mem/mem_tbb_tracker/events/samples.h"
#include "vbx/mem/mem_tbb_tracker/events/threshold_peak.h"
#include "vbx/mem/mem_tbb_tracker/records/block_shards.h"
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

void report_timeline_index() {
    const unsigned long long index = mem_timeline_index().add(1) - 1;
    if (index % 8 == 0)
        mem_print_stdout("Debug: MEM: Memory tracking: at timeline index %llu with total memory %lld\n",
                         index, static_cast<long long>(mem_event_totals.total()));
}

// The total moves only for a feature that it is kept for.
[[gnu::always_inline]] inline bool pass(std::uint32_t mask, TBBK_THREAD_WORDS* words, std::int64_t bytes) {
    return mem_event_totals.pass(words, (mask & MEM_FEATURES) != 0 ? bytes : 0);
}

// A sample of the modules shows the event, unless a reset comes in between: it is taken outside the gate. In
// one of the bins the block counts either way, since it is charged before and credited behind.

[[gnu::noinline]] void sample_modules(std::uint32_t mask) {
    if ((mask & MEM_GRANULARITY_PER_LIBRARY) != 0)
        mem_sample_modules();
}

[[gnu::noinline]] void sample_bins(std::uint32_t mask) {
    if ((mask & MEM_GRANULARITY_PER_BIN_DETAILED) != 0)
        mem_sample_bins_and_tags();
}

[[gnu::noinline]] void end_sample(std::uint32_t mask) {
    mem_sample_labels_and_auxiliary(mask);
    if ((mask & MEM_FEATURES) != 0)
        report_timeline_index();
}

// All that an event does for the global statistics alone. No sample shows them.
[[gnu::always_inline]] inline void count_globally(std::uint64_t size, bool is_allocation) {
    if (is_allocation)
        mem_global_stats().add_block(size);
    else
        mem_global_stats().remove_block(size);
    mem_event_totals.pass(os_has_one_thread() ? nullptr : tbbk_thread_words(), 0);
}

// Out of line, as the other is: each has use for all registers.
[[gnu::noinline]] void mem_tbb_on_allocation(std::uint32_t mask, void* block, std::uint64_t requested_size,
                                             std::uint64_t size) {
    const MEM_EVENT event{mask, block, requested_size, size, tbbk_thread_words()};
    if ((event.mask & MEM_ATTRIBUTED) != 0)
        mem_attribute_new_block(event);
    if ((event.mask & MEM_GRANULARITY_PER_BIN_DETAILED) != 0)
        mem_charge_bin_and_tag(event.words, event.block, event.size);
    if ((event.mask & MEM_COUNTS_GLOBALLY) != 0)
        mem_global_stats().add_block(size);
    // Last: a peak that another thread's free finds in the total is to be found in the tables, too.
    if (pass(event.mask, event.words, static_cast<std::int64_t>(size))) [[unlikely]] {
        sample_modules(event.mask);
        sample_bins(event.mask);
        end_sample(event.mask);
    }
}

[[gnu::noinline]] void mem_tbb_on_free(std::uint32_t mask, void* block, std::uint64_t size) {
    // First of all and outside the gate: recording a peak enters it as a cat. The total still holds the
    // block.
    const bool is_peak = (mask & MEM_FEATURES) != 0 && mem_tbb_check_threshold_peak();
    // At once: the tables may hold more than the total, not less.
    TBBK_THREAD_WORDS* const words = tbbk_thread_words();
    const bool is_sample = pass(mask, words, -static_cast<std::int64_t>(size)) || is_peak;
    if ((mask & MEM_ATTRIBUTED) != 0)
        mem_credit_freed_block({mask, block, 0, size, words});
    if (is_sample) [[unlikely]]
        sample_modules(mask);
    if ((mask & MEM_COUNTS_GLOBALLY) != 0)
        mem_global_stats().remove_block(size);
    if (is_peak && (mask & MEM_GRANULARITY_PER_BIN_DETAILED) != 0) [[unlikely]]
        mem_snapshot_bin_and_tag_peaks();
    if (is_sample) [[unlikely]]
        sample_bins(mask);
    if ((mask & MEM_GRANULARITY_PER_BIN_DETAILED) != 0)
        mem_credit_bin_and_tag(words, block, size);
    if (is_sample) [[unlikely]]
        end_sample(mask);
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
    const std::uint32_t mask = mem_current_mask();
    // 0 in the last events before a host's enabling or behind its disabling, which are ticks and no more.
    if (mask != 0 && (mask & ~MEM_COUNTS_GLOBALLY) == 0)
        count_globally(allocated_size, is_allocation);
    else if (is_allocation)
        mem_tbb_on_allocation(mask, block, requested_size != 0 ? requested_size : allocated_size,
                              allocated_size);
    else
        mem_tbb_on_free(mask, block, allocated_size);
}

void mem_tbb_on_free_notice(const void* block) noexcept {
    if (!mem_tracker_objects_exist.load(std::memory_order_acquire)) [[unlikely]]
        return;
    const std::uint32_t mask = mem_current_mask();
    if ((mask & MEM_ATTRIBUTED) != 0)
        mem_tbb_address_map->prefetch(block);
    if ((mask & MEM_GRANULARITY_PER_BIN_DETAILED) != 0)
        mem_tbb_block_shards->prefetch(block);
}
