// What the dynamic loader knows about the module at an address, asked for without any lock of the loader.
//
// Another thread may unload other modules while we look, so a link_map is read only for the module of the
// address in question: the caller has a return address in it on its stack.
#pragma once

#include "vbx/platform/debug_symbols/elf_file.h"

#include <elf.h>
#include <link.h>

#include <cstdint>
#include <string>
#include <vector>

// What a symbol file has to match to be the file of the loaded module.
struct SYM_IMAGE_IDENTITY {
    std::vector<Elf64_Phdr> program_headers;
    SYM_BUILD_ID build_id;
    const char* build_id_in_memory = nullptr; // null when it doesn't stand in the first page of the module
};

struct SYM_LOADED_MODULE {
    std::uint64_t map_start = 0; // page of the first segment
    std::uint64_t map_end = 0;
    std::uint64_t base = 0;                 // what to subtract from an address to get one of the symbol file
    const link_map* loader_entry = nullptr; // identity only, may dangle
    std::string loader_name;                // as the loader has it, empty for the executable
    SYM_IMAGE_IDENTITY identity;            // empty when the module's headers are not in memory
};

// The module that holds the code address; false when the loader knows none (heap, generated code).
bool sym_find_loaded_module(std::uint64_t address, SYM_LOADED_MODULE& module);

// Whether `module` still is what stands at the code address, and not another one loaded in its place, be it
// from a file of the same name. Some ten nanoseconds.
bool sym_is_module_at(const SYM_LOADED_MODULE& module, std::uint64_t address);

// Whether something that may be `module` still stands at its place. Safe for modules that may be gone.
bool sym_may_be_loaded(const SYM_LOADED_MODULE& module);

// Path of the file of a module just found: absolute where that can be told, empty when there is none (vdso).
std::string sym_loaded_module_path(const SYM_LOADED_MODULE& module);

// Whether `file` is the one the module was loaded from: by build id where both have one, else by program
// headers. False when the module's identity is not known.
bool sym_is_file_of_image(const SYM_ELF_FILE& file, const SYM_IMAGE_IDENTITY& identity);
