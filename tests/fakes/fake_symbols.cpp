#include "tests/fakes/fakes.h"
#include "vbx/platform/debug_symbols/debug_symbols.h"

#include <cstdio>
#include <map>

namespace {
std::map<std::uint64_t, FAKE_SYMBOL> symbols;
std::function<void(std::uint64_t)> query_hook;
int line_queries = 0;
int refreshes = 0;
std::uint64_t unlisted_address = 0;

const FAKE_SYMBOL* find(std::uint64_t address) {
    const auto found = symbols.find(address);
    return found != symbols.end() ? &found->second : nullptr;
}
} // namespace

void fake_define_symbol(std::uint64_t address, FAKE_SYMBOL symbol) {
    symbols[address] = std::move(symbol);
}
int fake_line_queries() {
    return line_queries;
}
int fake_refreshes() {
    return refreshes;
}
void fake_set_symbol_query_hook(std::function<void(std::uint64_t)> hook) {
    query_hook = std::move(hook);
}

SYM_STATUS sym_get_line_from_addr(std::uint64_t address, SYM_LINE& line) {
    ++line_queries;
    if (query_hook)
        query_hook(address);
    const FAKE_SYMBOL* const symbol = find(address);
    if (symbol != nullptr && !symbol->is_listed) {
        unlisted_address = address;
        return SYM_STATUS::module_not_listed;
    }
    if (symbol == nullptr || symbol->file.empty())
        return SYM_STATUS::no_information;
    line = {symbol->file.c_str(), symbol->line};
    return SYM_STATUS::found;
}

void sym_refresh_module_list() {
    ++refreshes;
    symbols[unlisted_address].is_listed = true;
}

bool sym_from_addr(std::uint64_t address, SYM_SYMBOL& symbol) {
    const FAKE_SYMBOL* const known = find(address);
    if (known == nullptr || known->function.empty())
        return false;
    symbol.name = known->function.c_str();
    return true;
}

void sym_undecorate_name(const char* name, char* out, std::size_t length) {
    std::snprintf(out, length, "%s", name);
}

bool sym_get_module_info(std::uint64_t address, SYM_MODULE& module) {
    const FAKE_SYMBOL* const known = find(address);
    if (known == nullptr || known->module.empty())
        return false;
    module.short_name = known->module.c_str();
    return true;
}
