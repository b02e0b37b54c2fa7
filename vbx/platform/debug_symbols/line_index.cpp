#include "vbx/platform/debug_symbols/line_index.h"

#include "vbx/platform/debug_symbols/debug_file_finder.h"

#include <dwarf.h>

#include <algorithm>

namespace {

// How many entries the range lists of a file can have, each read once: these are their shortest forms. In a
// broken file thousands of units can share one long list.
std::size_t most_range_entries(const SYM_DWARF_IMAGE& image) {
    constexpr std::size_t ranges_entry = 16;
    constexpr std::size_t rnglists_entry = 3;
    return image.section(".debug_ranges").size() / ranges_entry +
           image.section(".debug_rnglists").size() / rnglists_entry;
}

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
    SYM_ELF_FILE shared_file;
    if (sym_open_shared_debug_file(file, shared_file) && m_shared_image.load(shared_file)) {
        dwarf_setalt(m_image.dwarf(), m_shared_image.dwarf());
    }
    collect_units();
    return !m_ranges.empty();
}

void SYM_LINE_INDEX::collect_units() {
    struct RANGE {
        Dwarf_Addr start;
        Dwarf_Addr end;
        std::uint32_t unit;
    };
    std::vector<RANGE> ranges;
    std::size_t entries_left = most_range_entries(m_image);
    // The units are found by walking them: compilers need not write an address table.
    Dwarf_CU* unit = nullptr;
    Dwarf_Die die;
    while (dwarf_get_units(m_image.dwarf(), unit, &unit, nullptr, nullptr, &die, nullptr) == 0) {
        const std::size_t before = ranges.size();
        Dwarf_Addr base = 0;
        Dwarf_Addr start = 0;
        Dwarf_Addr end = 0;
        std::size_t unit_entries_left = entries_left + 1; // a unit of one piece has no list
        for (ptrdiff_t at = 0;
             unit_entries_left > 0 && (at = dwarf_ranges(&die, at, &base, &start, &end)) > 0;
             --unit_entries_left) {
            // Code that the linker threw away is left at address 0.
            if (start != 0 && start < end) {
                ranges.push_back({start, end, static_cast<std::uint32_t>(m_units.size())});
            }
        }
        entries_left = std::min(entries_left, unit_entries_left);
        if (ranges.size() > before) {
            m_units.push_back({die, nullptr, nullptr});
        }
    }
    // Units whose copy of a template was dropped for an equally long one still claim the place. The linker
    // keeps the first copy, so the first unit has to answer, which for the index is the one added last.
    m_ranges.reserve(ranges.size());
    for (auto range = ranges.rbegin(); range != ranges.rend(); ++range) {
        m_ranges.add(range->start, range->end, range->unit);
    }
    m_ranges.seal();
}

bool SYM_LINE_INDEX::find(std::uint64_t address, std::string& file_name, std::uint32_t& line) {
    const auto* interval = m_ranges.find(address);
    if (interval == nullptr) {
        return false;
    }
    UNIT& unit = m_units[interval->payload];
    return find_call_line(unit, address, file_name, line) || find_own_line(unit, address, file_name, line);
}

void SYM_LINE_INDEX::load_subprograms(UNIT& unit) const {
    auto subprograms = std::make_unique<SYM_SUBPROGRAM_INDEX>();
    auto split = std::make_unique<SYM_SPLIT_UNIT>();
    if (split->load(m_image, unit.die)) {
        subprograms->load(split->die(), split->list_base());
        unit.split = std::move(split);
    } else {
        subprograms->load(unit.die, 0);
    }
    unit.subprograms = std::move(subprograms);
}

bool SYM_LINE_INDEX::find_call_line(UNIT& unit, std::uint64_t address, std::string& file_name,
                                    std::uint32_t& line) {
    if (unit.subprograms == nullptr) {
        load_subprograms(unit);
    }
    Dwarf_Die file_table =
        unit.split != nullptr && unit.split->has_file_table() ? unit.split->die() : unit.die;
    SYM_CALL_SITE site{};
    Dwarf_Files* files = nullptr;
    std::size_t count = 0;
    if (!unit.subprograms->find_outermost_call(address, site) ||
        dwarf_getsrcfiles(&file_table, &files, &count) != 0 || site.file >= count) {
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
