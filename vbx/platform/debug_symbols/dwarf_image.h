// The debug information of one file as libdw sees it: a small ELF image in our own memory that holds nothing
// but the sections a line query reads.
//
// Handing libdw an image rather than the file settles three things at once. It loads no more than these
// sections; it finds neither descriptor nor directory, so it opens no further file on its own (it would map
// them); and what it parses as ELF was written here and is well-formed whatever the file contains.
#pragma once

#include "vbx/platform/debug_symbols/elf_file.h"

#include <elfutils/libdw.h>

#include <memory>
#include <span>
#include <string_view>

// How the sections of a file are called: split files carry ".dwo" behind each name.
enum class SYM_SECTION_NAMES { plain, split };

// A section to be added to an image from elsewhere.
struct SYM_EXTRA_SECTION {
    const char* name;
    std::string_view contents;
};

class SYM_DWARF_IMAGE {
  public:
    SYM_DWARF_IMAGE() = default;
    ~SYM_DWARF_IMAGE();
    SYM_DWARF_IMAGE(const SYM_DWARF_IMAGE&) = delete;
    SYM_DWARF_IMAGE& operator=(const SYM_DWARF_IMAGE&) = delete;

    // False when the file has no debug information or it can't be read. May throw std::bad_alloc, as may
    // every call into libdw with this handle.
    bool load(const SYM_ELF_FILE& file, SYM_SECTION_NAMES names = SYM_SECTION_NAMES::plain,
              std::span<const SYM_EXTRA_SECTION> extra = {});

    // Contents of a section, expanded; empty when it isn't there. Valid as long as this object.
    std::string_view section(std::string_view name) const;

    Dwarf* dwarf() const { return m_dwarf; }

  private:
    SYM_BYTES m_image;
    Elf* m_elf = nullptr;
    Dwarf* m_dwarf = nullptr;
};
