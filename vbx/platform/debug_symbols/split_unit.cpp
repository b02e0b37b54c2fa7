#include "vbx/platform/debug_symbols/split_unit.h"

#include <dwarf.h>

#include <algorithm>
#include <string>

namespace {

const char* read_text(Dwarf_Die& die, unsigned attribute) {
    Dwarf_Attribute buffer;
    return dwarf_formstring(dwarf_attr(&die, attribute, &buffer));
}

std::uint64_t read_number(Dwarf_Die& die, unsigned attribute) {
    Dwarf_Attribute buffer;
    Dwarf_Word value = 0;
    return dwarf_formudata(dwarf_attr(&die, attribute, &buffer), &value) == 0 ? value : 0;
}

// DWARF 5 and the extension of DWARF 4 before it name their attributes differently.
std::uint64_t read_number(Dwarf_Die& die, unsigned attribute, unsigned older_attribute) {
    const std::uint64_t value = read_number(die, attribute);
    return value != 0 ? value : read_number(die, older_attribute);
}

std::string dwo_path(Dwarf_Die& skeleton) {
    const char* name = read_text(skeleton, DW_AT_dwo_name);
    if (name == nullptr) {
        name = read_text(skeleton, DW_AT_GNU_dwo_name);
    }
    if (name == nullptr || *name == '\0' || *name == '/') {
        return name == nullptr ? std::string() : std::string(name);
    }
    // Relative to where the compiler ran; a relative folder would mean wherever the host happens to stand.
    const char* folder = read_text(skeleton, DW_AT_comp_dir);
    return folder == nullptr || *folder != '/' ? std::string() : std::string(folder) + '/' + name;
}

// The part of a section of the module that a split unit sees: from the unit's own entries on.
SYM_EXTRA_SECTION section_from(const SYM_DWARF_IMAGE& module, const char* name, std::uint64_t start) {
    std::string_view contents = module.section(name);
    contents.remove_prefix(std::min<std::uint64_t>(start, contents.size()));
    return {name, contents};
}

} // namespace

bool SYM_SPLIT_UNIT::load(const SYM_DWARF_IMAGE& module, const Dwarf_Die& skeleton) {
    Dwarf_Die die = skeleton;
    Dwarf_Half version = 0;
    std::uint8_t type = 0;
    std::uint64_t id = 0;
    if (dwarf_cu_info(die.cu, &version, &type, nullptr, nullptr, &id, nullptr, nullptr) != 0 ||
        type != DW_UT_skeleton) {
        return false;
    }
    SYM_ELF_FILE file;
    const std::string path = dwo_path(die);
    if (path.empty() || !file.open(path.c_str())) {
        return false;
    }
    std::vector<SYM_EXTRA_SECTION> extra;
    extra.push_back(
        section_from(module, ".debug_addr", read_number(die, DW_AT_addr_base, DW_AT_GNU_addr_base)));
    if (version < 5) {
        extra.push_back(section_from(module, ".debug_ranges", read_number(die, DW_AT_GNU_ranges_base)));
    }
    if (!m_image.load(file, SYM_SECTION_NAMES::split, extra) || !file.is_intact()) {
        return false;
    }
    Dwarf_CU* unit = nullptr;
    std::uint8_t unit_type = 0;
    while (dwarf_get_units(m_image.dwarf(), unit, &unit, nullptr, &unit_type, &m_die, nullptr) == 0) {
        std::uint64_t unit_id = 0;
        if (unit_type == DW_UT_split_compile &&
            dwarf_cu_info(unit, nullptr, nullptr, nullptr, nullptr, &unit_id, nullptr, nullptr) == 0 &&
            unit_id == id) {
            Dwarf_Attribute buffer;
            Dwarf_Addr start = 0;
            if (dwarf_formaddr(dwarf_attr(&die, DW_AT_low_pc, &buffer), &start) == 0) {
                m_list_base = start;
            }
            m_has_file_table = !m_image.section(".debug_line").empty();
            return true;
        }
    }
    return false;
}
