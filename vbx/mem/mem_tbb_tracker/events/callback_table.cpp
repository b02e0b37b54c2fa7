#include "vbx/mem/mem_tbb_tracker/events/callback_table.h"

#include "vbx/mem/base/spin_lock.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/mem_tbb_tracker/events/event_handler.h"
#include "vbx/mem/mem_tbb_tracker/state/granularity.h"
#include "vbx/mem/out_of_memory/host_call.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"
#include "vbx/platform/vbx_err/vbx_err.h"

#include <algorithm>
#include <atomic>

namespace {

constexpr int MAX_CALLBACKS = 16;

// One state of the table; never changed once an event can see it.
struct CALLBACK_TABLE {
    int count = 0;
    MEM_EVENT_CALLBACK callback_fns[MAX_CALLBACKS] = {};
    const CALLBACK_TABLE* older = nullptr;

    bool same_entries(const CALLBACK_TABLE& other) const {
        return std::equal(callback_fns, callback_fns + count, other.callback_fns,
                          other.callback_fns + other.count);
    }
    int index_of(MEM_EVENT_CALLBACK callback) const {
        return static_cast<int>(std::find(callback_fns, callback_fns + count, callback) - callback_fns);
    }
};

constinit CALLBACK_TABLE empty_table;
constinit std::atomic<const CALLBACK_TABLE*> current_table{&empty_table};

// Every change takes it, also those that are made under the granularity lock: a host may add a callback while
// another thread turns a feature on.
constinit MEM_SPIN_LOCK callback_lock{MEM_LOCK_RANK::callbacks};

// States are kept for good, because an event may be inside any of them; a state that was there before is
// taken again, so that a host which turns a callback on and off for hours uses two.
constinit const CALLBACK_TABLE* newest_state MEM_GUARDED_BY(callback_lock) = &empty_table;

void dispatch(void* block, std::uint64_t requested_size, std::uint64_t allocated_size, bool is_allocation) {
    const CALLBACK_TABLE& table = *current_table.load(std::memory_order_acquire);
    for (int index = 0; index < table.count; ++index)
        table.callback_fns[index](block, requested_size, allocated_size, is_allocation);
}

const CALLBACK_TABLE& kept_state(const CALLBACK_TABLE& wanted) MEM_REQUIRES(callback_lock) {
    for (const CALLBACK_TABLE* state = newest_state; state != nullptr; state = state->older)
        if (state->same_entries(wanted))
            return *state;
    auto* const state = new CALLBACK_TABLE(wanted);
    state->older = newest_state;
    newest_state = state;
    return *state;
}

void publish(const CALLBACK_TABLE& wanted) MEM_REQUIRES(callback_lock) {
    current_table.store(&kept_state(wanted), std::memory_order_release);
}

const CALLBACK_TABLE& publish_without(MEM_EVENT_CALLBACK callback) MEM_REQUIRES(callback_lock) {
    CALLBACK_TABLE table = *current_table.load(std::memory_order_relaxed);
    if (const int index = table.index_of(callback); index < table.count) {
        std::copy(table.callback_fns + index + 1, table.callback_fns + table.count,
                  table.callback_fns + index);
        table.callback_fns[--table.count] = nullptr;
        publish(table);
    }
    return *current_table.load(std::memory_order_relaxed);
}

} // namespace

void mem_table_add(MEM_EVENT_CALLBACK callback) {
    // An event of this thread that entered the gate here could wait for a cat that waits for the lock.
    const MEM_BLOCK_SCOPE own_heap_use;
    const MEM_SPIN_GUARD guard(callback_lock);
    CALLBACK_TABLE table = *current_table.load(std::memory_order_relaxed);
    if (table.index_of(callback) == table.count) {
        if (table.count == MAX_CALLBACKS)
            err_report_internal_error(
                "Change the size of callback_fns to increase the number of allowed callbacks", "MEM",
                __FILE__, __LINE__);
        table.callback_fns[table.count++] = callback;
        publish(table);
    }
    tbbk_set_mem_tracker_callback(table.count == 1 ? callback : dispatch);
}

void mem_table_remove(MEM_EVENT_CALLBACK callback) {
    const MEM_BLOCK_SCOPE own_heap_use;
    const MEM_SPIN_GUARD guard(callback_lock);
    const CALLBACK_TABLE& table = publish_without(callback);
    // With two or more the hook is the dispatcher already, or null after a shutdown, and stays that.
    if (table.count <= 1)
        tbbk_set_mem_tracker_callback(table.callback_fns[0]);
}

void mem_table_retire(MEM_EVENT_CALLBACK callback) {
    const MEM_BLOCK_SCOPE own_heap_use;
    const MEM_SPIN_GUARD guard(callback_lock);
    // A callback that stands alone in the table may be on the hook itself.
    if (publish_without(callback).count == 0)
        tbbk_set_mem_tracker_callback(nullptr);
}

void mem_add_callback_function(MEM_EVENT_CALLBACK callback) try {
    mem_table_add(callback);
} catch (const std::bad_alloc&) {
    mem_fail_host_call();
}

void mem_remove_callback_function(MEM_EVENT_CALLBACK callback) try {
    mem_table_remove(callback);
} catch (const std::bad_alloc&) {
    mem_fail_host_call();
}

namespace {

void change_mask(std::uint32_t old_mask, std::uint32_t new_mask) MEM_REQUIRES(mem_granularity_lock) {
    mem_tbb_granularity.store(new_mask, std::memory_order_relaxed);
    try {
        if (old_mask == 0 && new_mask != 0)
            mem_table_add(mem_tbb_event_handler);
        else if (old_mask != 0 && new_mask == 0)
            mem_table_remove(mem_tbb_event_handler);
        const bool keeps_blocks = (new_mask & MEM_KEEPS_BLOCKS) != 0;
        tbbk_set_free_notice(keeps_blocks ? mem_tbb_on_free_notice : nullptr);
    } catch (...) {
        // No memory for a new state of the table: the mask goes with the table as it is.
        mem_tbb_granularity.store(old_mask, std::memory_order_relaxed);
        throw;
    }
}

} // namespace

// The scopes mark the thread for as long as it holds the lock: a signal handler on it may end the process.

void mem_start_tracking(MEM_TRACKING_GRANULARITY mask) {
    const MEM_BLOCK_SCOPE own_heap_use;
    const MEM_SPIN_GUARD guard(mem_granularity_lock);
    change_mask(0, mask);
}

void mem_enable_tracking(MEM_TRACKING_GRANULARITY bits) try {
    const MEM_BLOCK_SCOPE own_heap_use;
    const MEM_SPIN_GUARD guard(mem_granularity_lock);
    const std::uint32_t old_mask = mem_current_mask();
    change_mask(old_mask, old_mask | bits);
} catch (const std::bad_alloc&) {
    mem_fail_host_call();
}

void mem_disable_tracking(MEM_TRACKING_GRANULARITY bits) try {
    const MEM_BLOCK_SCOPE own_heap_use;
    const MEM_SPIN_GUARD guard(mem_granularity_lock);
    const std::uint32_t old_mask = mem_current_mask();
    change_mask(old_mask, old_mask & ~static_cast<std::uint32_t>(bits));
} catch (const std::bad_alloc&) {
    mem_fail_host_call();
}

void mem_drop_tracking_after_fork() MEM_NO_THREAD_SAFETY_ANALYSIS {
    tbbk_set_mem_tracker_callback(nullptr);
    tbbk_set_free_notice(nullptr);
    mem_tbb_granularity.store(0, std::memory_order_relaxed);
    current_table.store(&empty_table, std::memory_order_release);
    callback_lock.reset();
}
