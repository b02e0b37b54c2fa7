// The functions of a module by address, from its symbol table.
#pragma once

#include "vbx/platform/debug_symbols/elf_file.h"
#include "vbx/platform/debug_symbols/interval_index.h"

class SYM_FUNCTION_INDEX {
  public:
    struct FUNCTION {
        const char* name; // as the symbol table has it
        std::uint64_t start;
    };

    // Indexes the function symbols of .symtab, else of .dynsym. False when the file has neither; may throw
    // std::bad_alloc.
    bool load(const SYM_ELF_FILE& file);

    // The function that holds the address of the file; false when there is none.
    bool find(std::uint64_t address, FUNCTION& function) const;

  private:
    bool load_table(const SYM_ELF_FILE& file, const Elf64_Shdr& table);

    SYM_INTERVAL_INDEX m_functions; // payload: offset of the name
    SYM_BYTES m_names;
};
