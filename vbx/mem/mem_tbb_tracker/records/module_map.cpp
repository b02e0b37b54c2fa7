#include "vbx/mem/mem_tbb_tracker/records/module_map.h"

MEMORY_TRACKER_BASE& MEM_MODULE_MAP::find_or_create(std::string_view name) {
    auto found = m_records.find(name);
    if (found == m_records.end())
        found = m_records.try_emplace(std::string(name)).first;
    return found->second;
}

const MEMORY_TRACKER_BASE* MEM_MODULE_MAP::find(std::string_view name) const {
    const auto found = m_records.find(name);
    return found == m_records.end() ? nullptr : &found->second;
}

const char* mem_module_name_of(const MEM_ADDRESS_TRACKER& site) {
    return site.module_name[0] != '\0' ? site.module_name : MEM_OTHER_MODULE;
}
