#include "vbx/mem/mem_tbb_tracker/attribution/resolve.h"

#include "vbx/mem/base/spin_lock.h"
#include "vbx/platform/debug_symbols/debug_symbols.h"
#include "vbx/platform/os/thread.h"

#include <algorithm>
#include <cstring>

namespace {

// Guards every call into the debug-symbol service. Nothing else is locked inside it.
constinit MEM_SPIN_LOCK symbol_lock{MEM_LOCK_RANK::leaf};

// Cuts silently.
template <std::size_t SIZE>
void copy_name(char (&to)[SIZE], const char* from) {
    const std::size_t length = std::min(std::strlen(from), SIZE - 1);
    std::memcpy(to, from, length);
    to[length] = '\0';
}

void fill_line(MEM_ADDRESS_TRACKER& record) MEM_REQUIRES(symbol_lock) {
    SYM_LINE line;
    SYM_STATUS status = sym_get_line_from_addr(record.address, line);
    if (status == SYM_STATUS::module_not_listed) {
        sym_refresh_module_list();
        status = sym_get_line_from_addr(record.address, line);
    }
    if (status != SYM_STATUS::found)
        return;
    copy_name(record.file_name, line.file_name);
    record.line = line.line;
}

void fill_function(MEM_ADDRESS_TRACKER& record) MEM_REQUIRES(symbol_lock) {
    SYM_SYMBOL symbol;
    if (!sym_from_addr(record.address, symbol))
        return;
    char name[sizeof record.function_name];
    copy_name(name, symbol.name);
    sym_undecorate_name(name, record.function_name, sizeof record.function_name);
}

void fill_module(MEM_ADDRESS_TRACKER& record) MEM_REQUIRES(symbol_lock) {
    SYM_MODULE module;
    if (sym_get_module_info(record.address, module))
        copy_name(record.module_name, module.short_name);
}

} // namespace

void mem_resolve_address(MEM_ADDRESS_TRACKER& record) {
    // The service reads files, and a read is where a pending cancellation would strike; the thread would be
    // gone from inside malloc, with the lock.
    const OS_NO_CANCELLATION no_cancellation;
    const MEM_SPIN_GUARD guard(symbol_lock);
    try {
        // Independent of each other: what one doesn't find, the next still may.
        fill_line(record);
        fill_function(record);
        fill_module(record);
    } catch (...) {
        // Out of memory, most likely. The fields filled so far stay.
    }
}

void mem_reset_symbol_lock() {
    symbol_lock.reset();
}
