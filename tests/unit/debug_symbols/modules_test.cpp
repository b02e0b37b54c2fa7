// The module list, and the truth about files that are not what was loaded.
#include "helpers.h"

#include <sys/resource.h>

#include <filesystem>

namespace {

using MODULES = SYMBOL_TEST;

TEST_F(MODULES, are_listed_by_refresh_only) {
    const auto address = reinterpret_cast<std::uint64_t>(load(SUBJECTS "plugin_first.so")) + 1;
    SYM_LINE line;
    SYM_SYMBOL symbol;
    SYM_MODULE module;
    EXPECT_EQ(sym_get_line_from_addr(address, line), SYM_STATUS::module_not_listed);
    EXPECT_FALSE(sym_from_addr(address, symbol) || sym_get_module_info(address, module));
    const ANSWER answer = ask(address);
    EXPECT_TRUE(answer.place.ends_with("/plugin.cpp:6")) << answer.place;
    EXPECT_EQ(answer.function + ' ' + answer.module, "plugin_first plugin_first");
    EXPECT_TRUE(sym_from_addr(address, symbol) && sym_get_module_info(address, module));
    EXPECT_EQ(symbol.displacement, 1U);
    EXPECT_STREQ(module.path, SUBJECTS "plugin_first.so");
    const std::vector<char> heap(100);
    EXPECT_EQ(ask(heap.data()).status, SYM_STATUS::module_not_listed);
    EXPECT_EQ(ask(heap.data()).function + ask(heap.data()).module, "");
    dlclose(library);
}

TEST_F(MODULES, that_take_the_place_of_others_are_noticed) {
    // One path, one size, most often one address and one loader entry: only the build tells them apart.
    const std::string path = folder / "libplugin.so";
    int same_place = 0;
    const void* last = nullptr;
    for (int round = 0; round < 8; ++round) {
        const bool first = round % 2 == 0;
        std::filesystem::remove(path);
        std::filesystem::copy_file(first ? SUBJECTS "plugin_first.so" : SUBJECTS "plugin_second.so", path);
        const void* const code = load(path);
        same_place += std::exchange(last, code) == code;
        EXPECT_EQ(ask(code).function, first ? "plugin_first" : "plugin_other");
        dlclose(library);
        if (round % 4 == 0) { // else nobody asks before the next one comes
            EXPECT_EQ(ask(code).status, SYM_STATUS::module_not_listed) << "gone";
        }
    }
    EXPECT_GT(same_place, 0) << "the loader reuses places, or this tests nothing";
}

TEST_F(MODULES, of_the_runtime_have_names_and_no_lines) {
    const void* const code = dlsym(RTLD_DEFAULT, "lfind");
    const ANSWER answer = ask(code);
    EXPECT_EQ(answer.status, SYM_STATUS::no_information);
    EXPECT_EQ(answer.function + ' ' + answer.module, "lfind c");
    sym_serve_runtime_lines(SYM_RUNTIME_LINES::served);
    const bool is_served = ask(code).place.find("lsearch") != std::string::npos;
    EXPECT_EQ(is_served,
              std::filesystem::exists("/usr/lib/debug/.build-id")); // the C library's debug package
    sym_serve_runtime_lines(SYM_RUNTIME_LINES::withheld);
}

TEST_F(MODULES, find_their_separate_debug_files) {
    // Linked by name and checksum. With one byte more the checksum is wrong: the name comes from the exported
    // symbols, and there is no line.
    const std::pair<std::string, std::string> places[] = {
        {":", "/plugin.cpp:6"},
        {"mkdir .debug && mv plugin.debug .debug", "/plugin.cpp:6"},
        {"printf x >>plugin.debug && rm -r .debug", ""},
    };
    for (const auto& [command, place] : places) {
        SCOPED_TRACE(command);
        run("cp " SUBJECTS "plugin_without_id.so lib.so && objcopy --only-keep-debug lib.so plugin.debug && "
            "strip lib.so && objcopy --add-gnu-debuglink=plugin.debug lib.so && " +
            command);
        const ANSWER answer = ask(load(folder / "lib.so"));
        EXPECT_EQ(answer.function, "plugin_first");
        EXPECT_EQ(answer.status, place.empty() ? SYM_STATUS::no_information : SYM_STATUS::found);
        EXPECT_TRUE(answer.place.ends_with(place)) << answer.place;
        dlclose(library);
        sym_release();
    }
}

TEST_F(MODULES, are_read_once_the_process_has_a_descriptor_again) {
    const void* const code = load(SUBJECTS "plugin_first.so");
    rlimit descriptors{};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    const rlimit none{0, descriptors.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const ANSWER without = ask(code);
    setrlimit(RLIMIT_NOFILE, &descriptors);
    EXPECT_EQ(without.status, SYM_STATUS::no_information);
    const ANSWER answer = ask(code);
    EXPECT_TRUE(answer.place.ends_with("/plugin.cpp:6")) << answer.place;
    EXPECT_EQ(without.function + answer.function, "plugin_first");
    dlclose(library);
}

TEST_F(MODULES, say_nothing_when_the_file_is_not_what_was_loaded) {
    for (const std::string replace :
         {":", "cp " SUBJECTS "plugin_second.so lib.so", "cp " SUBJECTS "plugin_without_id.so lib.so",
          "yes | head -c 100000 >lib.so", ": >lib.so", "head -c 8000 " SUBJECTS "plugin_first.so >lib.so",
          "mkdir lib.so", "mkfifo lib.so", "ln -s lib.so lib.so"}) {
        run("cp " SUBJECTS "plugin_first.so lib.so");
        const void* const code = load(folder / "lib.so");
        run("rm lib.so && " + replace);
        const ANSWER answer = ask(code);
        EXPECT_EQ(answer.status, SYM_STATUS::no_information) << replace;
        EXPECT_EQ(answer.function + ' ' + answer.module, " lib") << replace;
        dlclose(library);
        sym_release();
        run("rm -rf lib.so");
    }
}

} // namespace
