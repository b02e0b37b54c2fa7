#include "vbx/mem/mem_tbb_tracker/timelines/auxiliary_timeline.h"

#include "vbx/mem/host/memory_source.h"
#include "vbx/mem/mem_tbb_tracker/state/counters.h"

#include <new>

namespace {

// Not 0, which the queries for hosts give: a row without figures must not look like one of a tiny process.
constexpr std::uint64_t NO_FIGURE = ~std::uint64_t{0};

void read_system_figures(MEM_AUXILIARY_SAMPLE& sample) {
    OS_PROCESS_MEMORY memory;
    if (mem_query_process_memory(memory) != 0) {
        sample.page_faults = sample.resident = sample.commit_charge = NO_FIGURE;
        return;
    }
    sample.page_faults = memory.page_faults;
    sample.resident = memory.working_set;
    sample.commit_charge = memory.committed;
}

// One load each: an event on another thread can be counted in one field and not yet in the next.
void read_fallback_counters(MEM_AUXILIARY_SAMPLE& sample) {
    constexpr auto relaxed = std::memory_order_relaxed;
    const MEM_FALLBACK_COUNTERS& counters = mem_fallback_counters;
    sample.num_allocs = counters.allocations.load(relaxed);
    sample.num_deallocs = counters.frees.load(relaxed);
    sample.requested_total = counters.requested_total.load(relaxed);
    sample.requested_outstanding = counters.requested_outstanding.load(relaxed);
    sample.allocated_total = counters.allocated_total.load(relaxed);
    sample.allocated_outstanding = counters.allocated_outstanding.load(relaxed);
}

} // namespace

void MEM_AUXILIARY_TIMELINE::take_sample() noexcept {
    // Read before the lock, which is held for the append alone. So rows of two threads can stand the other
    // way round.
    MEM_AUXILIARY_SAMPLE sample;
    read_system_figures(sample);
    read_fallback_counters(sample);
    const MEM_SPIN_GUARD guard(m_lock);
    try {
        m_samples.push_back(sample);
    } catch (const std::bad_alloc&) {
        // The host's allocation, which this row is only a by-product of, must not fail for it.
    }
}
