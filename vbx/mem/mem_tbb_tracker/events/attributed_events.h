// The attributed stretch of an event: from the stack to the site, the live-block map and the module record.
//
// The thread is inside the gate as a mouse for all of it but the walks of the stack, so the site that it
// holds a pointer to stays; what a walk has found is looked at again inside. When the tracker itself runs out
// of memory the block goes unrecorded: it is charged to the catch-all record, where its free, as that of an
// unknown block, is taken from again.
//
// What the usual event does stands here, for the event handler to be made of in one piece: the calls between
// such short steps would be a third of it. What it does seldom is in the source file.
#pragma once

#include "vbx/mem/base/check.h"
#include "vbx/mem/mem_tbb_tracker/attribution/known_frames.h"
#include "vbx/mem/mem_tbb_tracker/events/gate.h"
#include "vbx/mem/mem_tbb_tracker/records/address_map.h"
#include "vbx/mem/mem_tbb_tracker/state/granularity.h"
#include "vbx/platform/os/thread.h"

#include <cstdint>

// Handed on by value: one whose address is taken lies in memory.
struct MEM_EVENT {
    std::uint32_t mask; // the event's copy
    void* block;
    std::uint64_t requested_size; // bytes asked for, not 0; unused in a free
    std::uint64_t size;           // bytes of the slot
    TBBK_THREAD_WORDS* words;     // of the thread
};

// From this size on the allocator's blocks don't belong to a thread, and who frees them doesn't matter.
constexpr std::uint64_t MEM_LARGEST_MISMATCHED_SIZE = 8128;

// The seldom steps. Inside the gate, but for the first.

// Finds the site by capturing the stack.
void mem_attribute_by_stack(MEM_EVENT event) noexcept;
// For a block that could not be recorded.
void mem_charge_catch_all(MEM_EVENT event) noexcept;
// The record of what nothing else explains, made if a reset has removed it. Throws std::bad_alloc.
MEM_SITE& mem_catch_all_site();
// Both throw std::bad_alloc, with nothing charged or credited.
void mem_charge_module(MEM_EVENT event, MEM_SITE& site);
void mem_credit_module(MEM_EVENT event, MEM_SITE& site);
// Takes a charge back that could not be completed.
void mem_undo_record(MEM_EVENT event, MEM_SITE& site) noexcept;

[[gnu::always_inline]] inline void mem_charge_site(const MEM_EVENT& event, MEM_SITE& site) {
    if ((event.mask & MEM_COUNTS_SITES) == 0)
        return;
    const MEM_SPIN_GUARD guard(site);
    mem_charge(site, event.size, event.requested_size);
}

[[gnu::always_inline]] inline void mem_credit_site(const MEM_EVENT& event, MEM_SITE& site,
                                                   bool is_mismatched) {
    if ((event.mask & MEM_COUNTS_SITES) == 0)
        return;
    const MEM_SPIN_GUARD guard(site);
    mem_credit(site, event.size);
    if (is_mismatched)
        site.cumulative_mismatched_bytes += static_cast<std::int64_t>(event.size);
}

// Behind the charge of the site. Throws std::bad_alloc, with nothing charged any more.
[[gnu::always_inline]] inline void mem_record_block(const MEM_EVENT& event, MEM_SITE& site) {
    try {
        const bool keeps_thread = (event.mask & MEM_GRANULARITY_PER_FILELINE) != 0;
        mem_tbb_address_map->insert_or_assign(event.block, {&site, keeps_thread ? os_thread_id() : 0, 0});
        if ((event.mask & MEM_GRANULARITY_PER_LIBRARY) != 0)
            mem_charge_module(event, site);
    } catch (...) {
        mem_undo_record(event, site);
        throw;
    }
}

// False, with nothing done, when a reset has come in between.
[[gnu::always_inline]] inline bool mem_charge_known_site(const MEM_EVENT& event,
                                                         const MEM_KNOWN_SITE& known) noexcept {
    const MEM_GATE_MOUSE mouse(*mem_tbb_gate, event.words);
    if (!mem_is_still_known(known)) [[unlikely]]
        return false;
    try {
        mem_charge_site(event, *known.site);
        mem_record_block(event, *known.site);
    } catch (...) {
        mem_charge_catch_all(event);
    }
    return true;
}

[[gnu::always_inline]] inline void mem_attribute_new_block(const MEM_EVENT& event) noexcept {
    // Stacks are walked with nothing held, neither a lock nor the gate: that is the longest step, and a walk
    // can wait for a thread that is in the middle of an event itself (see the unwinder).
    const MEM_KNOWN_SITE known = mem_find_known_site();
    if (known.site == nullptr || !mem_charge_known_site(event, known)) [[unlikely]]
        mem_attribute_by_stack(event);
}

[[gnu::always_inline]] inline void mem_credit_freed_block(const MEM_EVENT& event) noexcept {
    const MEM_GATE_MOUSE mouse(*mem_tbb_gate, event.words);
    MEM_BLOCK_RECORD record;
    // The entry is unlocked again before the lock of its site is taken.
    const bool is_known = mem_tbb_address_map->take(event.block, record);
    MEM_SITE* const address_tracker_ptr = record.address_tracker_ptr;
    if (is_known)
        MEM_CHECK(address_tracker_ptr != nullptr);
    const bool is_mismatched = is_known && (event.mask & MEM_GRANULARITY_PER_FILELINE) != 0 &&
                               event.size <= MEM_LARGEST_MISMATCHED_SIZE &&
                               record.thread_id != os_thread_id();
    try {
        MEM_SITE& site = is_known ? *address_tracker_ptr : mem_catch_all_site();
        mem_credit_site(event, site, is_mismatched);
        if ((event.mask & MEM_GRANULARITY_PER_LIBRARY) != 0)
            mem_credit_module(event, site);
    } catch (...) {
        // A record that a reset has removed can't be made again; there is nothing to credit.
    }
}
