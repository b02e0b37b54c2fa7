// What the tests of the debug symbols share: one call that asks everything, files to spoil, commands to run.
#pragma once

#include "vbx/platform/debug_symbols/debug_symbols.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

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

inline std::string run(const std::string& command) {
    std::string output;
    FILE* pipe = popen(command.c_str(), "r");
    std::array<char, 65536> piece;
    for (std::size_t got; (got = fread(piece.data(), 1, piece.size(), pipe)) > 0;) {
        output.append(piece.data(), got);
    }
    if (pclose(pipe) != 0) {
        throw std::runtime_error("failed: " + command);
    }
    return output;
}

inline std::string read_file(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), {});
}

inline void write_file(const std::string& path, const std::string& contents) {
    std::ofstream(path, std::ios::binary)
        .write(contents.data(), static_cast<std::streamsize>(contents.size()));
}

inline std::string subject(const std::string& name) {
    return std::string(SUBJECT_FOLDER) + '/' + name;
}

// An empty folder, a service that starts afresh, and what both leave behind.
class SYMBOL_TEST : public testing::Test {
  protected:
    SYMBOL_TEST() {
        std::string pattern = testing::TempDir() + "symbolsXXXXXX";
        folder = mkdtemp(pattern.data());
    }
    ~SYMBOL_TEST() override {
        sym_release();
        std::filesystem::remove_all(folder);
    }

    // Loads a library; its code pointer is what plugin_code() answers.
    void* load(const std::string& path) {
        library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (library == nullptr) {
            throw std::runtime_error(dlerror());
        }
        return reinterpret_cast<void* (*)()>(dlsym(library, "plugin_code"))();
    }

    std::string folder;
    void* library = nullptr;
};
