#include "vbx/mem/debug_aids/double_free_check.h"

#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/debug_aids/block_history.h"
#include "vbx/mem/mem_tbb_tracker/events/callback_table.h"
#include "vbx/mem/mem_tbb_tracker/state/granularity.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"
#include "vbx/platform/vbx_err/vbx_err.h"

#include <atomic>
#include <new>

namespace {

// In place of a bare "freed" the time of it: an old mark can be void without a walk over all of them.
using EPOCH = std::uint32_t;
constexpr EPOCH IN_USE = 0;
constinit std::atomic<EPOCH> current_epoch{1};

using FREE_MARK = std::pair<const void* const, EPOCH>;
using FREE_MARKS =
    tbb::concurrent_hash_map<const void*, EPOCH, MEM_BLOCK_ADDRESS_COMPARE, MEM_QUIET_ALLOCATOR<FREE_MARK>>;

// From the start of the check to the teardown, but for its pauses. Events that find no marks leave at once.
constinit std::atomic<FREE_MARKS*> free_marks{nullptr};
// Where they are meanwhile.
constinit std::atomic<FREE_MARKS*> paused_marks{nullptr};
// Only with a feature that finds sites.
constinit MEM_BLOCK_HISTORIES* histories = nullptr;

bool is_mark_of_now(EPOCH mark) {
    return mark == current_epoch.load(std::memory_order_acquire);
}

[[noreturn]] void report_double_free(const void* block) {
    if (histories != nullptr)
        histories->tell(block);
    err_report_internal_error("Double free detected", "MEM", __FILE__, __LINE__);
}

// A host's blocked thread is not checked. Nor is the check's own heap use: of that only an exception has
// events, which it frees inside of itself.
bool is_turned_away() {
    return (mem_thread_state.block_byte & (MEM_BLOCKED_BY_HOST | MEM_BLOCKED_BY_FREE_CHECK)) != 0;
}

// Operations of the library may hold locks that the making of a mark must not be waited for with. Their
// allocations are looked at all the same: the block may be a host's in the end, a stream's buffer for one.
bool is_in_own_work() {
    return (mem_thread_state.block_byte & MEM_BLOCKED_BY_OWN_WORK) != 0;
}

void take_mark_away(FREE_MARKS& marks, const void* block) {
    const MEM_RANK_SCOPE rank(MEM_LOCK_RANK::free_marks);
    if (FREE_MARKS::accessor entry; marks.find(entry, block))
        entry->second = IN_USE;
}

// Gives whether there was one.
bool set_mark(FREE_MARKS& marks, const void* block) {
    const MEM_RANK_SCOPE rank(MEM_LOCK_RANK::free_marks);
    FREE_MARKS::accessor entry;
    marks.insert(entry, FREE_MARK(block, IN_USE));
    const bool was_freed = is_mark_of_now(entry->second);
    entry->second = current_epoch.load(std::memory_order_relaxed);
    return was_freed;
}

// A free goes unmarked then, or its history untold. Inside the check's own scope, because that is where the
// exception itself is allocated.
template <class STEP>
void unless_memory_fails(STEP step) {
    try {
        step();
    } catch (const std::bad_alloc&) {
    }
}

// Whether a history is kept of this event. Also while no sites are found: the address may have an older one.
bool has_history() {
    return histories != nullptr && mem_thread_state.in_tracker_byte == 0 && !is_in_own_work();
}

// Both ask for the site before their own scope: what the tracker allocates for a new one it frees where the
// check looks.

void on_allocation(FREE_MARKS& marks, const void* block) {
    const bool is_noted = has_history();
    const std::uint64_t site = is_noted ? mem_site_of_this_event() : 0;
    const MEM_BLOCK_SCOPE own_work(MEM_BLOCKED_BY_FREE_CHECK);
    take_mark_away(marks, block);
    if (is_noted)
        unless_memory_fails([=] { histories->note_allocation(block, site); });
}

void on_free(FREE_MARKS& marks, const void* block) {
    const bool is_noted = has_history();
    const std::uint64_t site = is_noted ? mem_site_of_this_event() : 0;
    const MEM_BLOCK_SCOPE own_work(MEM_BLOCKED_BY_FREE_CHECK);
    unless_memory_fails([=, &marks] {
        if (set_mark(marks, block))
            report_double_free(block);
        if (is_noted)
            histories->note_free(block, site);
    });
}

// Before the heap has seen the block. It takes a block that it has given up for one of the C library's, if it
// can still read that memory at all, and there would be no event.
void check_before_free(const void* block) {
    FREE_MARKS* const marks = free_marks.load(std::memory_order_acquire);
    if (marks == nullptr || is_turned_away() || is_in_own_work())
        return;
    const MEM_BLOCK_SCOPE own_work(MEM_BLOCKED_BY_FREE_CHECK);
    bool was_freed = false;
    {
        const MEM_RANK_SCOPE rank(MEM_LOCK_RANK::free_marks);
        if (FREE_MARKS::const_accessor entry; marks->find(entry, block))
            was_freed = is_mark_of_now(entry->second);
    }
    if (was_freed)
        report_double_free(block);
}

} // namespace

void mem_double_free_handler(void* block, std::uint64_t, std::uint64_t, bool is_allocation) {
    FREE_MARKS* const marks = free_marks.load(std::memory_order_acquire);
    if (marks == nullptr || is_turned_away() || (is_in_own_work() && !is_allocation))
        return;
    if (is_allocation)
        on_allocation(*marks, block);
    else
        on_free(*marks, block);
}

void mem_start_double_free_check() {
    const MEM_BLOCK_SCOPE own_work;
    if ((mem_current_mask() & MEM_ATTRIBUTED) != 0)
        histories = new MEM_BLOCK_HISTORIES;
    free_marks.store(new FREE_MARKS, std::memory_order_release);
    mem_table_add(mem_double_free_handler);
    tbbk_set_free_check(check_before_free);
}

void mem_pause_double_free_check() {
    if (FREE_MARKS* const marks = free_marks.exchange(nullptr))
        paused_marks.store(marks);
}

void mem_resume_double_free_check(bool (*events_have_ended)()) {
    // An allocation that is still under way found the hook off; a free that is may still set an old mark.
    if (paused_marks.load() == nullptr || !events_have_ended())
        return;
    current_epoch.fetch_add(1);
    // What is known is of blocks before those that were allocated meanwhile. Nobody is inside: events that
    // come now find no marks.
    if (histories != nullptr)
        histories->forget_all();
    free_marks.store(paused_marks.exchange(nullptr));
}

void mem_stop_double_free_check() {
    mem_pause_double_free_check();
    if (paused_marks.load() == nullptr)
        return;
    tbbk_set_free_check(nullptr);
    try {
        mem_table_retire(mem_double_free_handler);
    } catch (const std::bad_alloc&) {
        // Without memory for the shorter table the handler stays in it, and finds no marks.
    }
}

void mem_destroy_free_marks() {
    delete paused_marks.exchange(nullptr);
    delete histories;
    histories = nullptr;
}

void mem_forget_double_free_check_after_fork() {
    // An event that the fork happened in goes on with the callbacks that it began with.
    free_marks.store(nullptr);
    tbbk_set_free_check(nullptr);
}
