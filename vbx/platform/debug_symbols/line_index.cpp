#include "vbx/platform/debug_symbols/line_index.h"

#include <dwarf.h>

namespace {

// Names in the debug information may be relative to the folder the compiler ran in.
void set_file_name(Dwarf_Die& unit, const char* name, std::string& out) {
    out.clear();
    if (*name != '/') {
        Dwarf_Attribute buffer;
        const char* folder = dwarf_formstring(dwarf_attr(&unit, DW_AT_comp_dir, &buffer));
        if (folder != nullptr && *folder != '\0') {
            out.append(folder).push_back('/');
        }
    }
    out.append(name);
}

} // namespace

bool SYM_LINE_INDEX::load(const SYM_ELF_FILE& file) {
    if (!m_image.load(file)) {
        return false;
    }
    // The units that libdw lists are found by walking them: compilers need not write an address table.
    Dwarf_CU* unit = nullptr;
    Dwarf_CU* next = nullptr;
    Dwarf_Die die;
    while (dwarf_get_units(m_image.dwarf(), unit, &next, nullptr, nullptr, &die, nullptr) == 0) {
        unit = next;
        Dwarf_Addr base = 0;
        Dwarf_Addr start = 0;
        Dwarf_Addr end = 0;
        bool has_code = false;
        for (ptrdiff_t at = 0; (at = dwarf_ranges(&die, at, &base, &start, &end)) > 0;) {
            // Code that the linker threw away is left at address 0.
            if (start != 0 && start < end) {
                m_ranges.add(start, end, static_cast<std::uint32_t>(m_units.size()));
                has_code = true;
            }
        }
        if (has_code) {
            m_units.push_back({die, nullptr});
        }
    }
    m_ranges.seal();
    return !m_ranges.empty();
}

bool SYM_LINE_INDEX::find(std::uint64_t address, std::string& file_name, std::uint32_t& line) {
    const auto* interval = m_ranges.find(address);
    if (interval == nullptr) {
        return false;
    }
    UNIT& unit = m_units[interval->payload];
    return find_call_line(unit, address, file_name, line) || find_own_line(unit, address, file_name, line);
}

bool SYM_LINE_INDEX::find_call_line(UNIT& unit, std::uint64_t address, std::string& file_name,
                                    std::uint32_t& line) {
    if (unit.subprograms == nullptr) {
        auto subprograms = std::make_unique<SYM_SUBPROGRAM_INDEX>();
        subprograms->load(unit.die);
        unit.subprograms = std::move(subprograms);
    }
    SYM_CALL_SITE site{};
    Dwarf_Files* files = nullptr;
    std::size_t count = 0;
    if (!unit.subprograms->find_outermost_call(address, site) ||
        dwarf_getsrcfiles(&unit.die, &files, &count) != 0 || site.file >= count) {
        return false;
    }
    const char* name = dwarf_filesrc(files, site.file, nullptr, nullptr);
    if (name == nullptr) {
        return false;
    }
    set_file_name(unit.die, name, file_name);
    line = static_cast<std::uint32_t>(site.line);
    return true;
}

bool SYM_LINE_INDEX::find_own_line(UNIT& unit, std::uint64_t address, std::string& file_name,
                                   std::uint32_t& line) {
    Dwarf_Line* entry = dwarf_getsrc_die(&unit.die, address);
    int number = 0;
    if (entry == nullptr || dwarf_lineno(entry, &number) != 0 || number < 0) {
        return false;
    }
    const char* name = dwarf_linesrc(entry, nullptr, nullptr);
    if (name == nullptr) {
        return false;
    }
    set_file_name(unit.die, name, file_name);
    line = static_cast<std::uint32_t>(number);
    return true;
}
