// Where the debug information of a module lies when it was split off into a file of its own.
#pragma once

#include "vbx/platform/debug_symbols/elf_file.h"

// Opens the separate debug file of `module`: by build id below the system's debug directory, else by the
// .gnu_debuglink name beside the module, in its .debug folder and below the debug directory. A candidate
// counts only if it has the module's build id, or the checksum of the link where the module has no build id.
// False when there is none. Looks at local files only and never asks a server.
bool sym_open_debug_file(const SYM_ELF_FILE& module, SYM_ELF_FILE& debug_file);

// Opens the file of debug information shared between modules that `file` refers to (.gnu_debugaltlink); false
// when it refers to none or the file isn't there.
bool sym_open_shared_debug_file(const SYM_ELF_FILE& file, SYM_ELF_FILE& shared_file);
