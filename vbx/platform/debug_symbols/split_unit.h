// The half of a compilation unit that the compiler left in a .dwo file beside the object file. It is what
// knows of functions and inlined calls; lines stand in the module.
#pragma once

#include "vbx/platform/debug_symbols/dwarf_image.h"

class SYM_SPLIT_UNIT {
  public:
    // Reads the .dwo file that belongs to the unit `skeleton` of the module. False when the unit is not
    // split, or the file is gone or from another compilation. May throw std::bad_alloc.
    bool load(const SYM_DWARF_IMAGE& module, const Dwarf_Die& skeleton);

    const Dwarf_Die& die() const { return m_die; }

    // What is to be added to address lists of this unit: they count from the start of the unit, which only
    // the skeleton knows.
    std::uint64_t list_base() const { return m_list_base; }

    // Whether file numbers of this unit count in a table of its own instead of the skeleton's.
    bool has_file_table() const { return m_has_file_table; }

  private:
    SYM_DWARF_IMAGE m_image;
    Dwarf_Die m_die{};
    std::uint64_t m_list_base = 0;
    bool m_has_file_table = false;
};
