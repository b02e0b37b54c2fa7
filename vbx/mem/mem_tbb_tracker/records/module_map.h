// The modules: short name -> the ten counters, in byte order of the names.
#pragma once

#include "vbx/mem/base/spin_lock.h"

#include <vbx/mem/trackers.h>

#include <map>
#include <string>
#include <string_view>

// Guards the map and every counter in it. Never held together with that of the site table or of a site.
inline constinit MEM_BUSY_SPIN_LOCK mem_module_lock{MEM_LOCK_RANK::leaf};

// Name of the record of what could not be attributed.
inline constexpr const char* MEM_OTHER_MODULE = "OTHER";

// Entries never move and are never removed one by one; sites keep pointers to them.
class MEM_MODULE_MAP {
  public:
    // The record of a name, made with all counters 0 if it is missing. Throws std::bad_alloc.
    MEMORY_TRACKER_BASE& find_or_create(std::string_view name) MEM_REQUIRES(mem_module_lock);
    // Null when there is none.
    const MEMORY_TRACKER_BASE* find(std::string_view name) const MEM_REQUIRES(mem_module_lock);
    // Forgets all records. Only for a cat of the gate that clears the sites too: these point into the map.
    void clear() MEM_REQUIRES(mem_module_lock) { m_records.clear(); }

    // Calls visit(const std::string& name, const MEMORY_TRACKER_BASE&) for every entry, in byte order of the
    // names.
    template <class VISIT>
    void for_each(VISIT visit) const MEM_REQUIRES(mem_module_lock) {
        for (const auto& [name, record] : m_records)
            visit(name, record);
    }

  private:
    std::map<std::string, MEMORY_TRACKER_BASE, std::less<>> m_records;
};

// From tracker start to teardown.
inline constinit MEM_MODULE_MAP* mem_tbb_module_map MEM_PT_GUARDED_BY(mem_module_lock) = nullptr;

// The name under which a site is charged: its module's, or "OTHER".
const char* mem_module_name_of(const MEM_ADDRESS_TRACKER& site);
