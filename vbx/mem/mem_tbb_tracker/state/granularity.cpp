#include "vbx/mem/mem_tbb_tracker/state/granularity.h"

namespace {
constinit MEM_SPIN_LOCK init_lock{MEM_LOCK_RANK::innermost};
constinit bool started MEM_GUARDED_BY(init_lock) = false;
} // namespace

bool mem_tbb_tracker_is_inited() {
    const MEM_SPIN_GUARD guard(init_lock);
    return started;
}

void mem_mark_tracker_started() {
    const MEM_SPIN_GUARD guard(init_lock);
    started = true;
}

bool mem_tracking_is_enabled(MEM_TRACKING_GRANULARITY bits) {
    return (mem_current_mask() & bits) == bits;
}

void mem_reset_state_locks() {
    init_lock.reset();
    mem_granularity_lock.reset();
}
