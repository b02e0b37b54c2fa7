// Libraries that are in the process, and functions in them, found without dlopen and dlsym.
//
// Before libc has been initialised, which is when this library starts, a dlopen makes the loader initialise
// libc on the spot and without the program's arguments: the program would have lost its name and its argv for
// good. Reading the loader's tables has no such effect.
#pragma once

#include <link.h>

#include <cstdint>

struct OS_LIBRARY {
    std::uintptr_t base = 0;             // what is added to the addresses in its tables
    const ElfW(Dyn) * dynamic = nullptr; // its dynamic section
    std::uintptr_t code_begin = 0;       // its executable segment
    std::uintptr_t code_end = 0;
};

// Finds a library by its file name without directory; false when it is not in the process. Takes the loader's
// lock: never call it inside an event.
bool os_find_library(const char* file_name, OS_LIBRARY& library);

// Address of a function that the library itself exports, or null. Of several versions it gives the default
// one.
void* os_find_function(const OS_LIBRARY& library, const char* name);
