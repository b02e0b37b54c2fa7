// The smaller controls of tracking.

#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/host/messages.h"
#include "vbx/mem/mem_tbb_tracker/state/switches.h"
#include "vbx/mem/tracker.h"

#include <vbx/mem/control.h>

#include <cstdint>
#include <new>

void mem_set_tbb_track_alloc_dealloc(bool on) {
    if (on)
        mem_enable_tracking(MEM_GRANULARITY_PER_BIN);
    else
        mem_disable_tracking(MEM_GRANULARITY_PER_BIN);
}

bool mem_get_tbb_track_alloc_dealloc() {
    return mem_tracking_is_enabled(MEM_GRANULARITY_PER_BIN);
}

void mem_set_tbb_memory_tracking_enabled(bool on) {
    mem_tbb_tracker_start(MEM_GRANULARITY_PER_BIN);
    mem_memory_tracking_flag = on;
}

bool mem_get_tbb_memory_tracking_enabled() {
    return mem_memory_tracking_flag;
}

MEM_TBB_NO_TRACK_ALLOC_DEALLOC_UNTIL_SCOPE_EXIT::MEM_TBB_NO_TRACK_ALLOC_DEALLOC_UNTIL_SCOPE_EXIT()
    : m_was_on(mem_get_tbb_track_alloc_dealloc()) {
    mem_set_tbb_track_alloc_dealloc(false);
}

MEM_TBB_NO_TRACK_ALLOC_DEALLOC_UNTIL_SCOPE_EXIT::~MEM_TBB_NO_TRACK_ALLOC_DEALLOC_UNTIL_SCOPE_EXIT() {
    try {
        mem_set_tbb_track_alloc_dealloc(m_was_on);
    } catch (const std::bad_alloc&) {
        // A destructor of the host's scope is no place to throw from.
        mem_warn("tracking stays off: there is no memory to turn it on again");
    }
}

namespace {
// Leaves alone what the library has blocked the thread for: a host's callback may be running inside of it.
int set_host_block(std::uint8_t bits) {
    const std::uint8_t old = mem_thread_state.block_byte;
    mem_thread_state.block_byte = static_cast<std::uint8_t>((old & ~unsigned{MEM_BLOCKED_BY_HOST}) | bits);
    return old & MEM_BLOCKED_BY_HOST;
}
} // namespace

int mem_block_thread_tracking() {
    return set_host_block(MEM_BLOCKED_BY_HOST);
}

int mem_unblock_thread_tracking() {
    return set_host_block(0);
}
