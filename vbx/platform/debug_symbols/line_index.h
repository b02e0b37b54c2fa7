// Source lines of a module by address.
#pragma once

#include "vbx/platform/debug_symbols/dwarf_image.h"
#include "vbx/platform/debug_symbols/interval_index.h"
#include "vbx/platform/debug_symbols/split_unit.h"
#include "vbx/platform/debug_symbols/subprogram_index.h"

#include <memory>
#include <string>
#include <vector>

class SYM_LINE_INDEX {
  public:
    // Reads the debug information of the file and indexes its compilation units. False when it has none. May
    // throw std::bad_alloc, as may the finds.
    bool load(const SYM_ELF_FILE& file);

    // Line of the outermost inlined call at the address of the file, else the line of the address itself. The
    // line is 0 where the compiler gives none. False when the address is in no unit.
    bool find(std::uint64_t address, std::string& file_name, std::uint32_t& line);

  private:
    struct UNIT {
        Dwarf_Die die;
        // Made at the first query in the unit.
        std::unique_ptr<SYM_SPLIT_UNIT> split; // null unless the unit is split
        std::unique_ptr<SYM_SUBPROGRAM_INDEX> subprograms;
    };

    void collect_units();
    void load_subprograms(UNIT& unit) const;
    bool find_call_line(UNIT& unit, std::uint64_t address, std::string& file_name, std::uint32_t& line);
    bool find_own_line(UNIT& unit, std::uint64_t address, std::string& file_name, std::uint32_t& line);

    SYM_DWARF_IMAGE m_shared_image; // of debug information that several modules share; goes after m_image
    SYM_DWARF_IMAGE m_image;
    std::vector<UNIT> m_units;
    SYM_INTERVAL_INDEX m_ranges; // payload: index of the unit
};
