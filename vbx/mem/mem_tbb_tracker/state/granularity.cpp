#include "vbx/mem/mem_tbb_tracker/state/granularity.h"

namespace {
constinit std::atomic<bool> started{false};
} // namespace

bool mem_tbb_tracker_is_inited() {
    return started.load(std::memory_order_acquire);
}

void mem_mark_tracker_started() {
    started.store(true, std::memory_order_release);
}

bool mem_tracking_is_enabled(MEM_TRACKING_GRANULARITY bits) {
    return (mem_current_mask() & bits) == bits;
}

void mem_reset_state_locks() {
    mem_granularity_lock.reset();
}
