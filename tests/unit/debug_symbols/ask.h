// One call that asks the service everything about an address.
#pragma once

#include "vbx/platform/debug_symbols/debug_symbols.h"

#include <string>

struct ANSWER {
    SYM_STATUS status = SYM_STATUS::module_not_listed;
    std::string file;
    std::uint32_t line = 0;
    std::string function;
    std::uint64_t displacement = 0;
    std::string module;
    std::string path;
};

// Asks for a return address the way the tracker does: line first, one refresh when the module is not listed.
inline ANSWER ask(std::uint64_t address) {
    ANSWER answer;
    SYM_LINE line;
    answer.status = sym_get_line_from_addr(address, line);
    if (answer.status == SYM_STATUS::module_not_listed) {
        sym_refresh_module_list();
        answer.status = sym_get_line_from_addr(address, line);
    }
    if (answer.status == SYM_STATUS::found) {
        answer.file = line.file_name;
        answer.line = line.line;
    }
    SYM_SYMBOL symbol;
    if (sym_from_addr(address, symbol)) {
        answer.function = symbol.name;
        answer.displacement = symbol.displacement;
    }
    SYM_MODULE module;
    if (sym_get_module_info(address, module)) {
        answer.module = module.short_name;
        answer.path = module.path;
    }
    return answer;
}

inline ANSWER ask(void* function) {
    return ask(reinterpret_cast<std::uint64_t>(function) + 1);
}
