#include "vbx/mem/mem_tbb_tracker/events/attributed_events.h"

#include "vbx/mem/mem_tbb_tracker/attribution/attribute_stack.h"
#include "vbx/mem/mem_tbb_tracker/records/module_map.h"
#include "vbx/mem/mem_tbb_tracker/records/site_table.h"

namespace {

enum class OUTCOME { charged, wants_deeper_stack };

// Throws std::bad_alloc, with nothing charged.
OUTCOME charge_by_stack(const MEM_EVENT& event, const MEM_CAPTURED_STACK& stack) {
    MEM_SITE* site;
    {
        const MEM_SPIN_GUARD guard(mem_site_lock);
        site = &mem_attribute_stack(stack.frames, stack.count);
        if (mem_stack_goes_on(stack) && site == &mem_tbb_site_table->catch_all())
            return OUTCOME::wants_deeper_stack;
    }
    mem_charge_site(event, *site);
    mem_record_block(event, *site);
    return OUTCOME::charged;
}

OUTCOME charge_inside_gate(const MEM_EVENT& event, const MEM_CAPTURED_STACK& stack) noexcept {
    const MEM_GATE_MOUSE mouse(*mem_tbb_gate, event.words);
    try {
        if (const OUTCOME outcome = charge_by_stack(event, stack); outcome != OUTCOME::charged)
            return outcome;
    } catch (...) {
        mem_charge_catch_all(event);
    }
    return OUTCOME::charged;
}

} // namespace

void mem_attribute_by_stack(MEM_EVENT event) noexcept {
    if (charge_inside_gate(event, mem_capture_stack()) == OUTCOME::wants_deeper_stack)
        charge_inside_gate(event, mem_capture_deeper_stack());
}

// Both records are there from the start of the tracker on; when a reset has removed one, there may be no
// memory to make it again, and the block leaves no trace in it.
void mem_charge_catch_all(MEM_EVENT event) noexcept {
    try {
        MEM_SITE& site = mem_catch_all_site();
        mem_charge_site(event, site);
        if ((event.mask & MEM_GRANULARITY_PER_LIBRARY) != 0)
            mem_charge_module(event, site);
    } catch (...) {
    }
}

MEM_SITE& mem_catch_all_site() {
    const MEM_SPIN_GUARD guard(mem_site_lock);
    return mem_tbb_site_table->catch_all();
}

void mem_charge_module(MEM_EVENT event, MEM_SITE& site) {
    const MEM_SPIN_GUARD guard(mem_module_lock);
    // A record lives as long as the site: one reset empties both tables.
    MEMORY_TRACKER_BASE* module_record = mem_load_module_tracker(site);
    if (module_record == nullptr) {
        module_record = &mem_tbb_module_map->find_or_create(mem_module_name_of(site));
        mem_store_module_tracker(site, module_record);
    }
    mem_charge(*module_record, event.size, event.requested_size);
}

void mem_credit_module(MEM_EVENT event, MEM_SITE& site) {
    const MEM_SPIN_GUARD guard(mem_module_lock);
    MEMORY_TRACKER_BASE* const known_record = mem_load_module_tracker(site);
    mem_credit(known_record != nullptr ? *known_record
                                       : mem_tbb_module_map->find_or_create(mem_module_name_of(site)),
               event.size);
}

void mem_undo_record(MEM_EVENT event, MEM_SITE& site) noexcept {
    MEM_BLOCK_RECORD ignored;
    mem_tbb_address_map->take(event.block, ignored);
    if ((event.mask & MEM_COUNTS_SITES) == 0)
        return;
    const MEM_SPIN_GUARD guard(site);
    mem_undo_charge(site, event.size, event.requested_size);
}
