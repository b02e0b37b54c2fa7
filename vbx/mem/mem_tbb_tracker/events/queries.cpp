// The queries that copy records out. Both pass the gate as a mouse, so that the records can't be cleared
// under them. Their own heap use, and that of a signal handler on their thread, must not ask for the gate a
// second time.

#include "vbx/mem/base/check.h"
#include "vbx/mem/base/long_operation.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/mem_tbb_tracker/events/gate.h"
#include "vbx/mem/mem_tbb_tracker/records/address_map.h"
#include "vbx/mem/mem_tbb_tracker/records/module_map.h"
#include "vbx/mem/mem_tbb_tracker/records/site_table.h"
#include "vbx/mem/mem_tbb_tracker/state/granularity.h"
#include "vbx/mem/mem_tbb_tracker/state/tracker_use.h"
#include "vbx/mem/out_of_memory/host_call.h"

#include <vbx/mem/trackers.h>

#include <new>
#include <optional>

bool mem_get_address_tracker(const void* address, MEM_ADDRESS_TRACKER& result) try {
    MEM_CHECK(mem_tbb_tracker_is_inited());
    const MEM_TRACKER_USE use;
    if (!use)
        return false;
    // A reset may have removed the record that null asks for. Making it allocates under the site lock.
    std::optional<MEM_SHORT_OPERATION> operation;
    if (address == nullptr && mem_known_catch_all.load(std::memory_order_acquire) == nullptr)
        operation.emplace();
    const MEM_BLOCK_SCOPE own_heap_use;
    const MEM_GATE_MOUSE mouse(*mem_tbb_gate);
    if (address == nullptr) {
        MEM_SITE* catch_all;
        {
            const MEM_SPIN_GUARD guard(mem_site_lock);
            catch_all = &mem_tbb_site_table->catch_all();
        }
        const MEM_SPIN_GUARD guard(*catch_all);
        mem_copy_site(result, *catch_all);
        return true;
    }
    return mem_tbb_address_map->visit(address, [&result](const MEM_BLOCK_RECORD& record) {
        const MEM_SPIN_GUARD guard(*record.address_tracker_ptr);
        mem_copy_site(result, *record.address_tracker_ptr);
    });
} catch (const std::bad_alloc&) {
    mem_fail_host_call();
}

bool mem_get_module_tracker(const std::string& name, MEMORY_TRACKER_BASE& tracker) {
    MEM_CHECK(mem_tbb_tracker_is_inited());
    const MEM_TRACKER_USE use;
    if (!use)
        return false;
    const MEM_BLOCK_SCOPE own_heap_use;
    const MEM_GATE_MOUSE mouse(*mem_tbb_gate);
    const MEM_SPIN_GUARD guard(mem_module_lock);
    const MEMORY_TRACKER_BASE* const module_record = mem_tbb_module_map->find(name);
    if (module_record == nullptr)
        return false;
    tracker = *module_record;
    return true;
}
