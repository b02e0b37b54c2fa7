#include "vbx/platform/debug_symbols/subprogram_index.h"

#include <dwarf.h>

namespace {

// Far deeper than any compiler nests; broken files must not use up the host's stack.
constexpr int deepest_level = 96;

// Far more than the functions of a unit have. In broken files thousands of them can share one long list.
constexpr std::size_t most_range_entries = std::size_t{1} << 22;

bool is_outer_scope(int tag) {
    switch (tag) {
    case DW_TAG_namespace:
    case DW_TAG_module:
    case DW_TAG_class_type:
    case DW_TAG_structure_type:
    case DW_TAG_union_type:
        return true;
    default:
        return false;
    }
}

bool is_code_scope(int tag) {
    switch (tag) {
    case DW_TAG_subprogram:
    case DW_TAG_inlined_subroutine:
    case DW_TAG_lexical_block:
    case DW_TAG_try_block:
    case DW_TAG_catch_block:
        return true;
    default:
        return false;
    }
}

bool read_number(Dwarf_Die& die, unsigned attribute, Dwarf_Word& value) {
    Dwarf_Attribute buffer;
    return dwarf_formudata(dwarf_attr(&die, attribute, &buffer), &value) == 0;
}

bool has_attribute(Dwarf_Die& die, unsigned attribute) {
    Dwarf_Attribute buffer;
    return dwarf_attr(&die, attribute, &buffer) != nullptr;
}

// What to add to the ranges of a scope: a start and an end are addresses, a list counts from the unit's base.
std::uint64_t base_of(Dwarf_Die& die, std::uint64_t list_base) {
    return list_base != 0 && has_attribute(die, DW_AT_ranges) ? list_base : 0;
}

bool has_address(Dwarf_Die& die, std::uint64_t address, std::uint64_t list_base) {
    return dwarf_haspc(&die, address - base_of(die, list_base)) == 1;
}

enum class SEARCH { not_here, found };

SEARCH find_call(SYM_DIE_WALK& walk, const Dwarf_Die& scope, std::uint64_t address, std::uint64_t list_base,
                 int level, SYM_CALL_SITE& site) {
    SEARCH result = SEARCH::not_here;
    if (level > deepest_level) {
        return result;
    }
    walk.for_each_child(scope, [&](Dwarf_Die& child) {
        const int tag = dwarf_tag(&child);
        if (tag == DW_TAG_inlined_subroutine) {
            if (has_address(child, address, list_base)) {
                if (read_number(child, DW_AT_call_line, site.line) && site.line != 0 &&
                    read_number(child, DW_AT_call_file, site.file)) {
                    result = SEARCH::found;
                }
                return false;
            }
        } else if (tag != DW_TAG_subprogram && is_code_scope(tag)) {
            // A block without addresses of its own can still hold inlined code.
            const bool has_addresses =
                has_attribute(child, DW_AT_low_pc) || has_attribute(child, DW_AT_ranges);
            if (!has_addresses || has_address(child, address, list_base)) {
                result = find_call(walk, child, address, list_base, level + 1, site);
                return result == SEARCH::not_here && !has_addresses;
            }
        }
        return true;
    });
    return result;
}

} // namespace

void SYM_SUBPROGRAM_INDEX::load(const Dwarf_Die& unit, std::uint64_t list_base) {
    m_unit = unit;
    m_list_base = list_base;
    collect(DEPTH::outer_scopes);
}

void SYM_SUBPROGRAM_INDEX::collect(DEPTH depth) {
    m_depth = depth;
    m_subprograms.clear();
    m_range_entries = 0;
    m_ranges = {};
    SYM_DIE_WALK walk(m_unit);
    collect_children(walk, m_unit, depth, 0);
    m_ranges.seal();
}

void SYM_SUBPROGRAM_INDEX::collect_children(SYM_DIE_WALK& walk, Dwarf_Die parent, DEPTH depth, int level) {
    if (level > deepest_level) {
        return;
    }
    walk.for_each_child(parent, [&](Dwarf_Die& child) {
        const int tag = dwarf_tag(&child);
        if (tag == DW_TAG_subprogram) {
            add(child);
        }
        if (is_outer_scope(tag) || (depth == DEPTH::everywhere && is_code_scope(tag))) {
            collect_children(walk, child, depth, level + 1);
        }
        return true;
    });
}

void SYM_SUBPROGRAM_INDEX::add(Dwarf_Die& subprogram) {
    const auto index = static_cast<std::uint32_t>(m_subprograms.size());
    bool has_code = false;
    const std::uint64_t shift = base_of(subprogram, m_list_base);
    Dwarf_Addr base = 0;
    Dwarf_Addr start = 0;
    Dwarf_Addr end = 0;
    for (ptrdiff_t at = 0; m_range_entries < most_range_entries &&
                           (at = dwarf_ranges(&subprogram, at, &base, &start, &end)) > 0;
         ++m_range_entries) {
        // Code that the linker threw away is left at address 0.
        if (start + shift != 0 && start < end) {
            m_ranges.add(start + shift, end + shift, index);
            has_code = true;
        }
    }
    if (has_code) {
        m_subprograms.push_back(subprogram);
    }
}

const Dwarf_Die* SYM_SUBPROGRAM_INDEX::find(std::uint64_t address) {
    const auto* interval = m_ranges.find(address);
    if (interval == nullptr && m_depth == DEPTH::outer_scopes) {
        // Functions of local classes stand inside other functions, which is a longer walk and seldom needed.
        collect(DEPTH::everywhere);
        interval = m_ranges.find(address);
    }
    return interval == nullptr ? nullptr : &m_subprograms[interval->payload];
}

bool SYM_SUBPROGRAM_INDEX::find_outermost_call(std::uint64_t address, SYM_CALL_SITE& site) {
    const Dwarf_Die* subprogram = find(address);
    if (subprogram == nullptr) {
        return false;
    }
    SYM_DIE_WALK walk(*subprogram);
    return find_call(walk, *subprogram, address, m_list_base, 0, site) == SEARCH::found;
}
