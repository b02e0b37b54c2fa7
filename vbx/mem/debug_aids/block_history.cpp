#include "vbx/mem/debug_aids/block_history.h"

#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/host/messages.h"
#include "vbx/mem/mem_tbb_tracker/attribution/attribute_stack.h"
#include "vbx/mem/mem_tbb_tracker/attribution/known_frames.h"
#include "vbx/mem/mem_tbb_tracker/attribution/resolve.h"
#include "vbx/mem/mem_tbb_tracker/events/gate.h"
#include "vbx/mem/mem_tbb_tracker/state/granularity.h"

#include <cstdio>
#include <cstring>

namespace {

bool tracker_finds_sites() {
    return mem_tracker_objects_exist.load(std::memory_order_acquire) &&
           (mem_current_mask() & MEM_ATTRIBUTED) != 0;
}

struct SITE_TEXT {
    char text[220] = "an unknown place";
};

// The end of a path tells more than its beginning.
const char* last_part(const char* path) {
    constexpr std::size_t LONGEST = 100;
    const std::size_t length = std::strlen(path);
    return length > LONGEST ? path + length - LONGEST : path;
}

SITE_TEXT described(std::uint64_t address) {
    SITE_TEXT result;
    if (address == 0)
        return result;
    MEM_ADDRESS_TRACKER site;
    site.address = address;
    mem_resolve_address(site);
    const char* const function = site.function_name[0] != '\0' ? site.function_name : "unknown code";
    if (site.file_name[0] != '\0')
        std::snprintf(result.text, sizeof result.text, "%.100s (%.100s:%u)", function,
                      last_part(site.file_name), site.line);
    else
        std::snprintf(result.text, sizeof result.text, "%.100s in %.100s", function, site.module_name);
    return result;
}

} // namespace

std::uint64_t mem_site_of_this_event() noexcept {
    if (!tracker_finds_sites())
        return 0;
    const MEM_IN_TRACKER_SCOPE in_tracker;
    if (const MEM_KNOWN_SITE known = mem_find_known_site(); known.site != nullptr) {
        const MEM_GATE_MOUSE mouse(*mem_tbb_gate);
        if (mem_is_still_known(known))
            return known.site->address;
    }
    const MEM_CAPTURED_STACK stack = mem_capture_stack();
    const MEM_GATE_MOUSE mouse(*mem_tbb_gate);
    const MEM_SPIN_GUARD guard(mem_site_lock);
    try {
        return mem_attribute_stack(stack.frames, stack.count).address;
    } catch (...) {
        return 0;
    }
}

void MEM_BLOCK_HISTORIES::note_allocation(const void* block, std::uint64_t site) {
    const MEM_RANK_SCOPE rank(MEM_LOCK_RANK::free_marks);
    ENTRIES::accessor entry;
    m_entries.insert(entry, ENTRY(block, MEM_BLOCK_HISTORY()));
    entry->second = {site, 0};
}

void MEM_BLOCK_HISTORIES::note_free(const void* block, std::uint64_t site) {
    const MEM_RANK_SCOPE rank(MEM_LOCK_RANK::free_marks);
    ENTRIES::accessor entry;
    m_entries.insert(entry, ENTRY(block, MEM_BLOCK_HISTORY()));
    entry->second.freed_at = site;
}

void MEM_BLOCK_HISTORIES::tell(const void* block) {
    MEM_BLOCK_HISTORY history;
    {
        const MEM_RANK_SCOPE rank(MEM_LOCK_RANK::free_marks);
        if (ENTRIES::const_accessor entry; m_entries.find(entry, block))
            history = entry->second;
    }
    if (history.allocated_at == 0 && history.freed_at == 0)
        return;
    mem_warn("block %p was allocated at %s, first freed at %s", block, described(history.allocated_at).text,
             described(history.freed_at).text);
}
