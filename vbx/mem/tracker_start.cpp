#include "vbx/mem/base/check.h"
#include "vbx/mem/debug_aids/settings.h"
#include "vbx/mem/host/messages.h"
#include "vbx/mem/mem_tbb_tracker/attribution/attribute_stack.h"
#include "vbx/mem/mem_tbb_tracker/events/callback_table.h"
#include "vbx/mem/mem_tbb_tracker/events/gate.h"
#include "vbx/mem/mem_tbb_tracker/records/address_map.h"
#include "vbx/mem/mem_tbb_tracker/records/block_shards.h"
#include "vbx/mem/mem_tbb_tracker/records/module_map.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker/records/site_table.h"
#include "vbx/mem/mem_tbb_tracker/state/executable_tag.h"
#include "vbx/mem/mem_tbb_tracker/state/granularity.h"
#include "vbx/mem/mem_tbb_tracker/state/settings.h"
#include "vbx/mem/mem_tbb_tracker/state/switches.h"
#include "vbx/mem/mem_tbb_tracker/timelines/auxiliary_timeline.h"
#include "vbx/mem/mem_tbb_tracker/timelines/bin_tag_timeline.h"
#include "vbx/mem/mem_tbb_tracker/timelines/label_timeline.h"
#include "vbx/mem/mem_tbb_tracker/timelines/module_timeline.h"
#include "vbx/mem/mem_tbb_tracker_profile_bins/profile_bins.h"
#include "vbx/mem/out_of_memory/report_room.h"
#include "vbx/mem/tracker.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"
#include "vbx/platform/vbx_err/vbx_err.h"

#include <vbx/mem/host.h>

namespace {

void build_objects() {
    {
        const MEM_SPIN_GUARD guard(mem_site_lock);
        mem_tbb_site_table = new MEM_SITE_TABLE;
    }
    mem_tbb_address_map = new MEM_ADDRESS_MAP;
    {
        const MEM_SPIN_GUARD guard(mem_module_lock);
        mem_tbb_module_map = new MEM_MODULE_MAP;
        mem_module_timeline = new MEM_MODULE_TIMELINE(*mem_tbb_module_map);
    }
    mem_auxiliary_timeline = new MEM_AUXILIARY_TIMELINE;
    mem_label_timeline = new MEM_LABEL_TIMELINE;
    mem_tbb_block_shards = new MEM_BLOCK_SHARDS;
    pbin_stats = new MEM_PB_STATS_TABLE;
    ptag_stats = new MEM_PB_STATS_TABLE;
    // First used here and not inside an event.
    MEM_PROFILE_BINS::get_instance();
    mem_bin_tag_timeline = new MEM_BIN_TAG_TIMELINE(*ptag_stats);
}

MEMORY_TRACKER_BASE& create_other_module() {
    const MEM_SPIN_GUARD guard(mem_module_lock);
    return mem_tbb_module_map->find_or_create(MEM_OTHER_MODULE);
}

void create_catch_all_site(MEMORY_TRACKER_BASE& other_module) {
    const MEM_SPIN_GUARD guard(mem_site_lock);
    mem_store_module_tracker(mem_tbb_site_table->catch_all(), &other_module);
}

// Everything works without the shim but for the one thing that the library is there for, and nothing would
// say so: the process would just have no events.
void warn_if_no_events_can_come() {
    if (!tbbk_process_malloc_is_shim())
        mem_warn(
            "nothing can be tracked: malloc is not that of libtbbamalloc.so. Link the executable with it, or "
            "preload it");
}

} // namespace

void mem_tbb_tracker_start(MEM_TRACKING_GRANULARITY mask) {
    if (mem_tbb_tracker_is_inited())
        return;
    mem_read_settings();
    build_objects();
    mem_tbb_unwinder = ERR_UNWINDER::get_default_unwinder();
    MEM_CHECK(mem_tbb_unwinder);
    mem_create_executable_tag();
    create_catch_all_site(create_other_module());
    // Started before the hook goes on: in a process that loads the library late, other threads have events
    // from that moment, and attribution takes a tracker that has not started for a fault.
    mem_tracker_objects_exist.store(true, std::memory_order_release);
    mem_mark_tracker_started();
    if (mask != 0) {
        warn_if_no_events_can_come();
        mem_hold_report_room();
    }
    if ((mask & MEM_GRANULARITY_PER_BIN) != 0)
        mem_set_tbb_memory_tracking_enabled(true);
    if ((mask & MEM_GRANULARITY_PER_BIN_DETAILED) != 0)
        mem_bin_tag_tracking_flag = true;
    if (mem_cfg_is_on("mem_profile_with_incomplete_fileline_info", false))
        mem_accept_incomplete_fileline_info();
    mem_start_tracking(mask);
    // Behind the event handler in the table: a block is counted before an aid touches it.
    const bool has_debug_aids = mem_read_debug_aid_settings();
    if (has_debug_aids && mask == 0)
        warn_if_no_events_can_come();
}
