#include "vbx/mem/mem_tbb_tracker/events/attributed_events.h"

#include "vbx/mem/base/check.h"
#include "vbx/mem/base/tracker_gate.h"
#include "vbx/mem/mem_tbb_tracker/attribution/attribute_stack.h"
#include "vbx/mem/mem_tbb_tracker/attribution/known_frames.h"
#include "vbx/mem/mem_tbb_tracker/events/gate.h"
#include "vbx/mem/mem_tbb_tracker/events/samples.h"
#include "vbx/mem/mem_tbb_tracker/records/address_map.h"
#include "vbx/mem/mem_tbb_tracker/records/module_map.h"
#include "vbx/mem/mem_tbb_tracker/records/site_table.h"
#include "vbx/mem/mem_tbb_tracker/state/granularity.h"
#include "vbx/platform/os/thread.h"

namespace {

// From this size on the allocator's blocks don't belong to a thread, and who frees them doesn't matter.
constexpr std::uint64_t LARGEST_MISMATCHED_SIZE = 8128;

[[gnu::always_inline]] inline void charge_site(const MEM_EVENT& event, MEM_SITE& site) {
    if ((event.mask & MEM_COUNTS_SITES) == 0)
        return;
    const MEM_SITE_GUARD guard(site);
    mem_charge(site, event.size, event.requested_size);
}

// Throws std::bad_alloc, with nothing charged.
void charge_module(const MEM_EVENT& event, MEM_SITE& site) {
    if ((event.mask & MEM_GRANULARITY_PER_LIBRARY) == 0)
        return;
    const MEM_SPIN_GUARD guard(mem_module_lock);
    // A record lives as long as the site: one reset empties both tables.
    MEMORY_TRACKER_BASE* module_record = mem_load_module_tracker(site);
    if (module_record == nullptr) {
        module_record = &mem_tbb_module_map->find_or_create(mem_module_name_of(site));
        mem_store_module_tracker(site, module_record);
    }
    mem_charge(*module_record, event.size, event.requested_size);
}

// Behind the charge of the site. Throws std::bad_alloc, with nothing charged any more.
[[gnu::always_inline]] inline void record_block(const MEM_EVENT& event, MEM_SITE& site) {
    try {
        const bool keeps_thread = (event.mask & MEM_GRANULARITY_PER_FILELINE) != 0;
        mem_tbb_address_map->insert_or_assign(event.block, {&site, keeps_thread ? os_thread_id() : 0, 0});
        charge_module(event, site);
    } catch (...) {
        MEM_BLOCK_RECORD ignored;
        mem_tbb_address_map->take(event.block, ignored);
        const MEM_SITE_GUARD guard(site);
        if ((event.mask & MEM_COUNTS_SITES) != 0)
            mem_undo_charge(site, event.size, event.requested_size);
        throw;
    }
}

enum class OUTCOME { charged, wants_stack, wants_deeper_stack };

// Throws std::bad_alloc, with nothing charged.
OUTCOME charge_known_site(const MEM_EVENT& event, const MEM_KNOWN_SITE& known) {
    if (!mem_is_still_known(known))
        return OUTCOME::wants_stack;
    charge_site(event, *known.site);
    record_block(event, *known.site);
    return OUTCOME::charged;
}

// Throws std::bad_alloc, with nothing charged.
[[gnu::noinline]] OUTCOME charge_by_stack(const MEM_EVENT& event, const MEM_CAPTURED_STACK& stack) {
    MEM_SITE* site;
    {
        const MEM_SPIN_GUARD guard(mem_site_lock);
        site = &mem_attribute_stack(stack.frames, stack.count);
        if (mem_stack_goes_on(stack) && site == &mem_tbb_site_table->catch_all())
            return OUTCOME::wants_deeper_stack;
    }
    charge_site(event, *site);
    record_block(event, *site);
    return OUTCOME::charged;
}

// Made if a reset has removed it. Throws std::bad_alloc.
MEM_SITE& catch_all_site() {
    const MEM_SPIN_GUARD guard(mem_site_lock);
    return mem_tbb_site_table->catch_all();
}

// For a block that could not be recorded. Both records are there from the start of the tracker on; when a
// reset has removed one, there may be no memory to make it again, and the block leaves no trace in it.
void charge_catch_all(const MEM_EVENT& event) noexcept {
    try {
        MEM_SITE& site = catch_all_site();
        charge_site(event, site);
        charge_module(event, site);
    } catch (...) {
    }
}

// Behind the module record's update, so that the sample shows this event, and still inside the gate.
void sample_modules(const MEM_EVENT& event) {
    if (event.is_sample && (event.mask & MEM_GRANULARITY_PER_LIBRARY) != 0)
        mem_sample_modules();
}

template <class CHARGE>
OUTCOME charge_inside_gate(const MEM_EVENT& event, CHARGE charge) noexcept {
    const MEM_GATE_MOUSE mouse(*mem_tbb_gate);
    try {
        if (const OUTCOME outcome = charge(); outcome != OUTCOME::charged)
            return outcome;
    } catch (...) {
        charge_catch_all(event);
    }
    sample_modules(event);
    return OUTCOME::charged;
}

OUTCOME charge_inside_gate(const MEM_EVENT& event, const MEM_CAPTURED_STACK& stack) noexcept {
    return charge_inside_gate(event, [&] { return charge_by_stack(event, stack); });
}

void credit_site(const MEM_EVENT& event, MEM_SITE& site, bool is_mismatched) {
    if ((event.mask & MEM_COUNTS_SITES) == 0)
        return;
    const MEM_SITE_GUARD guard(site);
    mem_credit(site, event.size);
    if (is_mismatched)
        site.cumulative_mismatched_bytes += static_cast<std::int64_t>(event.size);
}

// Throws std::bad_alloc, with nothing credited.
void credit_module(const MEM_EVENT& event, MEM_SITE& site) {
    if ((event.mask & MEM_GRANULARITY_PER_LIBRARY) == 0)
        return;
    const MEM_SPIN_GUARD guard(mem_module_lock);
    MEMORY_TRACKER_BASE* const known_record = mem_load_module_tracker(site);
    mem_credit(known_record != nullptr ? *known_record
                                       : mem_tbb_module_map->find_or_create(mem_module_name_of(site)),
               event.size);
}

} // namespace

void mem_attribute_new_block(const MEM_EVENT& event) noexcept {
    // Stacks are walked with nothing held, neither a lock nor the gate: that is the longest step, and a walk
    // can wait for a thread that is in the middle of an event itself (see the unwinder).
    const MEM_KNOWN_SITE known = mem_find_known_site();
    if (known.site != nullptr &&
        charge_inside_gate(event, [&] { return charge_known_site(event, known); }) == OUTCOME::charged)
        return;
    if (charge_inside_gate(event, mem_capture_stack()) == OUTCOME::wants_deeper_stack)
        charge_inside_gate(event, mem_capture_deeper_stack());
}

void mem_credit_freed_block(const MEM_EVENT& event) noexcept {
    const MEM_GATE_MOUSE mouse(*mem_tbb_gate);
    MEM_BLOCK_RECORD record;
    // The entry is unlocked again before the lock of its site is taken.
    const bool is_known = mem_tbb_address_map->take(event.block, record);
    MEM_SITE* const address_tracker_ptr = record.address_tracker_ptr;
    if (is_known)
        MEM_CHECK(address_tracker_ptr != nullptr);
    const bool is_mismatched = is_known && (event.mask & MEM_GRANULARITY_PER_FILELINE) != 0 &&
                               event.size <= LARGEST_MISMATCHED_SIZE && record.thread_id != os_thread_id();
    try {
        MEM_SITE& site = is_known ? *address_tracker_ptr : catch_all_site();
        credit_site(event, site, is_mismatched);
        credit_module(event, site);
    } catch (...) {
        // A record that a reset has removed can't be made again; there is nothing to credit.
    }
    sample_modules(event);
}
