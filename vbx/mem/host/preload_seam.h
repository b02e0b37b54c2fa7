// What the preload library lends the library that it brings into a program.
//
// In a preloaded program standard output is the program's data: not a byte of ours may get there, and nothing
// of ours may touch the program's streams. The preload library therefore defines the function below. The
// reference is weak: without the preload library it is null, and the library prints as in a linked host. It
// is bound while the modules are loaded, so it holds from the first line that the library prints.
#pragma once

#include <cstdarg>

extern "C" {
[[gnu::weak, gnu::visibility("default")]] void mem_preload_print(const char* format, std::va_list args);
}
