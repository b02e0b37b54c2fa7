#include "vbx/platform/debug_symbols/debug_symbols.h"

#include "vbx/platform/debug_symbols/demangle.h"
#include "vbx/platform/debug_symbols/module_list.h"
#include "vbx/platform/debug_symbols/scratch_stack.h"
#include "vbx/platform/debug_symbols/short_name.h"

namespace {

struct SYM_SERVICE {
    SYM_MODULE_LIST modules;
    std::uint64_t unlisted = 0; // code address that the next refresh looks up
    std::string file_name;      // texts of the last answer
    char function_name[SYM_MAX_NAME + 1] = "";
};

// Made at the first query and freed by sym_release alone: queries come as long as the process allocates.
constinit SYM_SERVICE* service = nullptr;
constinit SYM_RUNTIME_LINES runtime_lines = SYM_RUNTIME_LINES::withheld;

SYM_SERVICE& the_service() {
    if (service == nullptr) {
        service = new SYM_SERVICE;
    }
    return *service;
}

// A return address may be the first byte behind its function, or of the next one, when the call does not
// return.
std::uint64_t call_address(std::uint64_t return_address) {
    return return_address - 1;
}

SYM_STATUS find_line(std::uint64_t address, SYM_LINE& line) {
    const std::uint64_t code = call_address(address);
    SYM_SERVICE& state = the_service();
    SYM_MODULE_ENTRY* module = state.modules.find(code);
    if (module == nullptr) {
        state.unlisted = code;
        return SYM_STATUS::module_not_listed;
    }
    if (runtime_lines == SYM_RUNTIME_LINES::withheld && sym_is_runtime_module(module->short_name())) {
        return SYM_STATUS::no_information;
    }
    SYM_LINE_INDEX* lines = module->lines();
    if (lines == nullptr || !lines->find(code - module->loaded().base, state.file_name, line.line)) {
        return SYM_STATUS::no_information;
    }
    line.file_name = state.file_name.c_str();
    return SYM_STATUS::found;
}

bool find_symbol(std::uint64_t address, SYM_SYMBOL& symbol) {
    const std::uint64_t code = call_address(address);
    SYM_SERVICE& state = the_service();
    SYM_MODULE_ENTRY* module = state.modules.find(code);
    const SYM_FUNCTION_INDEX* functions = module == nullptr ? nullptr : module->functions();
    SYM_FUNCTION_INDEX::FUNCTION function{};
    if (functions == nullptr || !functions->find(code - module->loaded().base, function)) {
        return false;
    }
    sym_demangle_symbol(function.name, state.function_name, sizeof(state.function_name));
    symbol.name = state.function_name;
    symbol.displacement = address - module->loaded().base - function.start;
    return true;
}

} // namespace

SYM_STATUS sym_get_line_from_addr(std::uint64_t address, SYM_LINE& line) {
    return sym_with_room([&] { return find_line(address, line); });
}

void sym_refresh_module_list() {
    sym_with_room([] {
        SYM_SERVICE& state = the_service();
        state.modules.refresh(state.unlisted);
        return true;
    });
}

bool sym_from_addr(std::uint64_t address, SYM_SYMBOL& symbol) {
    return sym_with_room([&] { return find_symbol(address, symbol); });
}

void sym_undecorate_name(const char* name, char* out, std::size_t length) {
    sym_with_room([=] {
        sym_demangle(name, out, length);
        return true;
    });
}

bool sym_get_module_info(std::uint64_t address, SYM_MODULE& module) {
    const SYM_MODULE_ENTRY* entry = the_service().modules.find(call_address(address));
    if (entry == nullptr) {
        return false;
    }
    module = {entry->short_name().c_str(), entry->path().c_str()};
    return true;
}

void sym_serve_runtime_lines(SYM_RUNTIME_LINES lines) {
    runtime_lines = lines;
}

void sym_release() {
    delete service;
    service = nullptr;
}
