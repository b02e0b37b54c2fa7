// What the tests of the debug symbols share: files to spoil, commands to run.
#pragma once

#include "tests/unit/debug_symbols/ask.h"

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
