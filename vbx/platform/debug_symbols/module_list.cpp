#include "vbx/platform/debug_symbols/module_list.h"

#include "vbx/platform/debug_symbols/debug_file_finder.h"
#include "vbx/platform/debug_symbols/short_name.h"

#include <algorithm>

SYM_MODULE_ENTRY::SYM_MODULE_ENTRY(SYM_LOADED_MODULE loaded)
    : m_loaded(std::move(loaded)), m_path(sym_loaded_module_path(m_loaded)),
      m_short_name(sym_short_module_name(m_path.empty() ? m_loaded.loader_name : m_path)) {}

bool SYM_MODULE_ENTRY::open_file(SYM_ELF_FILE& file) const {
    const auto opens = [&](const char* path) {
        return file.open(path) && sym_is_file_of_image(file, m_loaded.identity);
    };
    // An executable that was removed or replaced while it runs is still there under the kernel's name for it.
    return !m_path.empty() &&
           (opens(m_path.c_str()) || (m_loaded.loader_name.empty() && opens("/proc/self/exe")));
}

SYM_MODULE_ENTRY::STATE SYM_MODULE_ENTRY::state_behind(const SYM_ELF_FILE& file,
                                                       const SYM_ELF_FILE& debug_file) {
    return file.may_succeed_later() || debug_file.may_succeed_later() ? STATE::unread : STATE::read;
}

const SYM_FUNCTION_INDEX* SYM_MODULE_ENTRY::functions() {
    if (m_functions_state == STATE::unread) {
        SYM_ELF_FILE file;
        SYM_ELF_FILE debug_file;
        auto index = std::make_unique<SYM_FUNCTION_INDEX>();
        if (open_file(file)) {
            // A full symbol table stands in the module, or was moved to the debug file; what is left then is
            // the table of exported symbols.
            const bool has_full_table = file.find_section(".symtab") != nullptr;
            const bool loaded = (!has_full_table && sym_open_debug_file(file, debug_file) &&
                                 debug_file.find_section(".symtab") != nullptr && index->load(debug_file)) ||
                                index->load(file);
            if (loaded && file.is_intact()) {
                m_functions = std::move(index);
            }
        }
        m_functions_state = state_behind(file, debug_file);
    }
    return m_functions.get();
}

SYM_LINE_INDEX* SYM_MODULE_ENTRY::lines() {
    if (m_lines_state == STATE::unread) {
        SYM_ELF_FILE file;
        SYM_ELF_FILE debug_file;
        auto index = std::make_unique<SYM_LINE_INDEX>();
        if (open_file(file)) {
            const bool loaded =
                index->load(file) || (sym_open_debug_file(file, debug_file) && index->load(debug_file));
            if (loaded && file.is_intact()) {
                m_lines = std::move(index);
            }
        }
        m_lines_state = state_behind(file, debug_file);
    }
    return m_lines.get();
}

SYM_MODULE_ENTRY* SYM_MODULE_LIST::find(std::uint64_t address) const {
    const auto after = std::upper_bound(
        m_entries.begin(), m_entries.end(), address,
        [](std::uint64_t value, const auto& entry) { return value < entry->loaded().map_start; });
    if (after == m_entries.begin()) {
        return nullptr;
    }
    SYM_MODULE_ENTRY* entry = (after - 1)->get();
    return address < entry->loaded().map_end && sym_is_module_at(entry->loaded(), address) ? entry : nullptr;
}

void SYM_MODULE_LIST::refresh(std::uint64_t address) {
    std::erase_if(m_entries, [](const auto& entry) { return !sym_may_be_loaded(entry->loaded()); });
    SYM_LOADED_MODULE loaded;
    if (find(address) != nullptr || !sym_find_loaded_module(address, loaded)) {
        return;
    }
    // What still overlaps the newcomer stood there before it.
    std::erase_if(m_entries, [&](const auto& entry) {
        return entry->loaded().map_start < loaded.map_end && loaded.map_start < entry->loaded().map_end;
    });
    auto entry = std::make_unique<SYM_MODULE_ENTRY>(std::move(loaded));
    const auto place = std::find_if(m_entries.begin(), m_entries.end(), [&](const auto& other) {
        return other->loaded().map_start > entry->loaded().map_start;
    });
    m_entries.insert(place, std::move(entry));
}
