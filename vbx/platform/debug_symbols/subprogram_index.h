// The functions of one compilation unit in its debug information, and the inlined calls inside each.
#pragma once

#include "vbx/platform/debug_symbols/die_walk.h"
#include "vbx/platform/debug_symbols/interval_index.h"

#include <elfutils/libdw.h>

#include <vector>

// Where an inlined function was called. The file counts in the line table of the unit.
struct SYM_CALL_SITE {
    Dwarf_Word file;
    Dwarf_Word line;
};

class SYM_SUBPROGRAM_INDEX {
  public:
    // Collects the functions of the unit. list_base is added to every list of address ranges; 0 but for split
    // units.
    void load(const Dwarf_Die& unit, std::uint64_t list_base);

    // When the address lies in code inlined into its function: the outermost of the calls, the one that
    // stands in the function itself. False when it lies in the function's own code or nowhere.
    bool find_outermost_call(std::uint64_t address, SYM_CALL_SITE& site);

    // The function that holds the address; null when there is none.
    const Dwarf_Die* find(std::uint64_t address);

  private:
    enum class DEPTH { outer_scopes, everywhere };

    void collect(DEPTH depth);
    void collect_children(SYM_DIE_WALK& walk, Dwarf_Die parent, DEPTH depth, int level);
    void add(Dwarf_Die& subprogram);

    Dwarf_Die m_unit{};
    std::uint64_t m_list_base = 0;
    std::vector<Dwarf_Die> m_subprograms;
    SYM_INTERVAL_INDEX m_ranges; // payload: index of the subprogram
    std::size_t m_range_entries = 0;
    DEPTH m_depth = DEPTH::outer_scopes;
};
