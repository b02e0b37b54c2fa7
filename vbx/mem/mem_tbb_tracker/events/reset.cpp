// Forgetting what the tracker has attributed so far.

#include "vbx/mem/base/check.h"
#include "vbx/mem/base/long_operation.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/mem_tbb_tracker/attribution/known_frames.h"
#include "vbx/mem/mem_tbb_tracker/events/gate.h"
#include "vbx/mem/mem_tbb_tracker/events/threshold_peak.h"
#include "vbx/mem/mem_tbb_tracker/records/address_map.h"
#include "vbx/mem/mem_tbb_tracker/records/module_map.h"
#include "vbx/mem/mem_tbb_tracker/records/site_table.h"
#include "vbx/mem/mem_tbb_tracker/state/granularity.h"
#include "vbx/mem/mem_tbb_tracker/state/tracker_use.h"
#include "vbx/mem/mem_tbb_tracker/timelines/bin_tag_timeline.h"
#include "vbx/mem/out_of_memory/host_call.h"

#include <vbx/mem/control.h>

namespace {

// No event is inside the gate, so nobody holds a pointer to a site or a module record. The blocks go before
// the sites that they point to; modules and sites point to each other only through what is cleared here.
void forget_sites_and_modules() MEM_REQUIRES(*mem_tbb_gate) {
    mem_tbb_address_map->clear();
    {
        const MEM_SPIN_GUARD guard(mem_module_lock);
        mem_tbb_module_map->clear();
    }
    const MEM_SPIN_GUARD guard(mem_site_lock);
    mem_tbb_site_table->clear();
    mem_forget_known_frames();
}

// The total first: a free that comes in between must not find the old one against a search that begins.
void begin_search_for_peak_anew() {
    mem_event_totals.set_total(0);
    mem_threshold_peak_bytes.store(0, std::memory_order_relaxed);
    mem_next_peak_bytes.store(MEM_FIRST_PEAK_BYTES, std::memory_order_relaxed);
}

} // namespace

void mem_reset_tracking_entries() try {
    MEM_CHECK(mem_tbb_tracker_is_inited());
    // Behind the teardown, and in the child of a fork, there is nothing to forget.
    const MEM_LONG_OPERATION operation;
    const MEM_TRACKER_USE use;
    if (!use)
        return;
    // The tracker's frees come back as events; those must not ask for the gate.
    const MEM_IN_TRACKER_SCOPE in_tracker;
    const MEM_GATE_CAT cat(*mem_tbb_gate);
    forget_sites_and_modules();
    // Charges and samples run outside the gate; the tables' own gate and the timeline's section keep them
    // apart from this. Blocks that are live keep their tag ids, and what their frees find missing they
    // leave alone.
    mem_bin_tag_timeline->clear_tags();
    begin_search_for_peak_anew();
} catch (const std::bad_alloc&) {
    mem_fail_host_call();
}
