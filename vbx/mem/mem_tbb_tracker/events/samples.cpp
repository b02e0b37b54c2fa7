#include "vbx/mem/mem_tbb_tracker/events/samples.h"

#include "vbx/mem/base/check.h"
#include "vbx/mem/base/long_operation.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/mem_tbb_tracker/events/event_totals.h"
#include "vbx/mem/mem_tbb_tracker/state/granularity.h"
#include "vbx/mem/mem_tbb_tracker/state/tracker_use.h"
#include "vbx/mem/mem_tbb_tracker/timelines/auxiliary_timeline.h"
#include "vbx/mem/mem_tbb_tracker/timelines/bin_tag_timeline.h"
#include "vbx/mem/mem_tbb_tracker/timelines/label_timeline.h"
#include "vbx/mem/mem_tbb_tracker/timelines/module_timeline.h"
#include "vbx/mem/out_of_memory/host_call.h"

#include <vbx/mem/timelines.h>

#include <new>

namespace {

// A timeline leaves nothing half done, so there is nothing to tidy up. Where the memory runs out between a
// row and its label, all later labels stand one row off.
template <class SAMPLE>
void sample_if_memory_allows(SAMPLE sample) noexcept {
    try {
        sample();
    } catch (const std::bad_alloc&) {
    }
}

void sample_label() noexcept {
    sample_if_memory_allows([] {
        const MEM_SPIN_GUARD guard(mem_label_timeline->lock);
        mem_label_timeline->take_sample();
    });
}

} // namespace

void mem_sample_modules() noexcept {
    sample_if_memory_allows([] { mem_module_timeline->take_sample(); });
}

void mem_sample_bins_and_tags() noexcept {
    sample_if_memory_allows([] { mem_bin_tag_timeline->take_sample(); });
}

void mem_sample_labels_and_auxiliary(std::uint32_t mask) noexcept {
    if ((mask & (MEM_GRANULARITY_PER_LIBRARY | MEM_GRANULARITY_PER_BIN_DETAILED)) != 0)
        sample_label();
    if ((mask & MEM_GRANULARITY_AUXILIARY_TIMELINE) != 0)
        mem_auxiliary_timeline->take_sample();
}

void mem_user_snapshot_tracking_data() {
    MEM_CHECK(mem_tbb_tracker_is_inited());
    const MEM_LONG_OPERATION operation;
    const MEM_TRACKER_USE use;
    if (!use)
        return;
    const MEM_BLOCK_SCOPE own_heap_use;
    mem_sample_modules();
    mem_sample_bins_and_tags();
    sample_label();
    mem_auxiliary_timeline->take_sample();
    // The tick goes on from where it stood; this is one more.
    mem_event_totals.add_tick();
}

void mem_set_timeline_label(const std::string& label) try {
    const MEM_TRACKER_USE use;
    if (!use)
        return;
    const MEM_BLOCK_SCOPE own_heap_use;
    // Under the lock nothing is allocated and nothing freed: events that take a sample wait for it.
    std::string exchanged = label;
    const MEM_SPIN_GUARD guard(mem_label_timeline->lock);
    mem_label_timeline->exchange_label(exchanged);
} catch (const std::bad_alloc&) {
    mem_fail_host_call();
}
