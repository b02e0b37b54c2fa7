// One walk over the entries of debug information, through as many levels as its user descends.
#pragma once

#include <elfutils/libdw.h>

// It goes through the file from front to back: a child lies behind its parent, a sibling behind all that the
// one before it holds. In a damaged file, where they don't, it would go round for ever, or meet what several
// parents share once for each way down to it. So it ends at an entry that lies no further than one before.
class SYM_DIE_WALK {
  public:
    // Entries behind this one.
    explicit SYM_DIE_WALK(Dwarf_Die start) : m_furthest(dwarf_dieoffset(&start)) {}

    // Calls visit(die) for the children of parent until it answers false. It may ask for their children.
    template <class VISIT>
    void for_each_child(Dwarf_Die parent, VISIT visit) {
        Dwarf_Die child;
        if (dwarf_child(&parent, &child) != 0) {
            return;
        }
        do {
            const Dwarf_Off here = dwarf_dieoffset(&child);
            if (here <= m_furthest) {
                return;
            }
            m_furthest = here;
        } while (visit(child) && dwarf_siblingof(&child, &child) == 0);
    }

  private:
    Dwarf_Off m_furthest;
};
