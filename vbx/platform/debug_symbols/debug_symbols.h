// The debug-symbol service of the process: from a code address to source line, function and module.
//
// An `address` here is always a return address as a stack walk gives it. The instruction meant is the call
// before it, so every lookup uses address - 1; that happens inside this service and nowhere else.
//
// The service keeps a list of modules with an index of each, made at the first query that needs it. It never
// calls into the dynamic loader in a way that waits for its lock, never maps a symbol file, keeps no
// descriptor open, installs no signal handler. It works on a stack of its own, because a host's may be small,
// and holds signals back meanwhile. Symbol files that are missing, truncated, of another build than the
// loaded module or not ELF at all just answer "no information".
//
// Not thread-safe: the caller holds one lock around the queries for an address. Returned texts stay valid
// until the next call of this service. The address asked for has to be in use as a return address, so that
// its module can't be unloaded meanwhile. Any query may throw std::bad_alloc; the service stays usable.
#pragma once

#include <cstddef>
#include <cstdint>

enum class SYM_STATUS {
    found,
    no_information,    // the module is listed; it has no answer
    module_not_listed, // call sym_refresh_module_list and ask again
};

struct SYM_LINE {
    const char* file_name = nullptr; // absolute where the debug information allows it
    std::uint32_t line = 0;
};

constexpr std::size_t SYM_MAX_NAME = 2000;

struct SYM_SYMBOL {
    const char* name = nullptr; // undecorated, without return type, at most SYM_MAX_NAME characters
    std::uint64_t displacement = 0;
};

struct SYM_MODULE {
    const char* short_name = nullptr; // libfoo.so.1 -> foo; an executable's base name as it stands
    const char* path = nullptr;
};

// Source line of the outermost call in an inlined chain, so that the answer lies in the function that
// sym_from_addr names. Modules of the C and C++ runtime answer no_information.
SYM_STATUS sym_get_line_from_addr(std::uint64_t address, SYM_LINE& line);

// Brings the module list up to date: adds the module of the last address that was not listed, drops modules
// that are gone or replaced.
void sym_refresh_module_list();

// Function that holds the address; false when unknown.
bool sym_from_addr(std::uint64_t address, SYM_SYMBOL& symbol);

// Writes `name` undecorated and without return type into out (length characters at most, the terminating NUL
// included). A name that is not decorated, or does not undecorate, is copied as it stands.
void sym_undecorate_name(const char* name, char* out, std::size_t length);

// Module that holds the address; false when unknown.
bool sym_get_module_info(std::uint64_t address, SYM_MODULE& module);

// Whether the modules of the C and C++ runtime answer line queries. They don't by default: what they say
// hangs on the debug packages that are installed, and a site in them helps nobody. For tests.
enum class SYM_RUNTIME_LINES { withheld, served };
void sym_serve_runtime_lines(SYM_RUNTIME_LINES lines);

// Frees every index and the module list. The next query starts afresh. For tests.
void sym_release();
