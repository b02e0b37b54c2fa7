// What the tests of the debug symbols share: one call that asks everything, a folder, subjects to load.
#pragma once

#include "tests/support/run_child.h"
#include "vbx/platform/debug_symbols/debug_symbols.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

struct ANSWER {
    SYM_STATUS status;
    std::string place; // "file:line"
    std::string function;
    std::string module;
};

// Asks for a return address the way the tracker does: line first, one refresh when the module is not listed.
inline ANSWER ask(std::uint64_t address) {
    SYM_LINE line;
    ANSWER answer{sym_get_line_from_addr(address, line), "", "", ""};
    if (answer.status == SYM_STATUS::module_not_listed) {
        sym_refresh_module_list();
        answer.status = sym_get_line_from_addr(address, line);
    }
    if (answer.status == SYM_STATUS::found)
        answer.place = std::string(line.file_name) + ':' + std::to_string(line.line);
    if (SYM_SYMBOL symbol; sym_from_addr(address, symbol))
        answer.function = symbol.name;
    if (SYM_MODULE module; sym_get_module_info(address, module))
        answer.module = module.short_name;
    return answer;
}

inline ANSWER ask(const void* function) {
    return ask(reinterpret_cast<std::uint64_t>(function) + 1);
}

inline void write_file(const std::string& path, const std::string& contents) {
    std::ofstream(path, std::ios::binary) << contents;
}

// An empty folder, and a service that starts afresh.
class SYMBOL_TEST : public testing::Test {
  protected:
    ~SYMBOL_TEST() override { sym_release(); }

    // What the shell prints, in the folder.
    std::string run(const std::string& command) const {
        const TEST_OUTCOME outcome = test_run_child({{"sh", "-c", command}}, folder);
        if (outcome.end != "exit 0")
            throw std::runtime_error(command + ": " + outcome.standard_error);
        return outcome.standard_output;
    }
    // Loads a library; its code pointer is what plugin_code() answers.
    void* load(const std::string& path) {
        library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr)
            throw std::runtime_error(dlerror());
        return reinterpret_cast<void* (*)()>(dlsym(library, "plugin_code"))();
    }

    TEST_DIRECTORY folder;
    void* library = nullptr;
};
