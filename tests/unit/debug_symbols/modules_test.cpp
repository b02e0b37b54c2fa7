// The module list, the truth about files that are not what was loaded, and what the service leaves behind.
#include "helpers.h"

#include <sys/stat.h>

#include <cstdlib>
#include <set>

namespace {

std::set<std::string> open_descriptors() {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone; // the iterator's own
        names.insert(entry.path().filename().string() + std::filesystem::read_symlink(entry, gone).string());
    }
    std::erase_if(names, [](const std::string& name) { return name.find("/proc/") != std::string::npos; });
    return names;
}

class MODULES : public SYMBOL_TEST {};

TEST_F(MODULES, are_listed_by_refresh_only) {
    const auto address = reinterpret_cast<std::uint64_t>(load(subject("plugin_first.so"))) + 1;
    SYM_LINE line;
    SYM_SYMBOL symbol;
    SYM_MODULE module;
    EXPECT_EQ(sym_get_line_from_addr(address, line), SYM_STATUS::module_not_listed);
    EXPECT_FALSE(sym_from_addr(address, symbol));
    EXPECT_FALSE(sym_get_module_info(address, module));
    sym_refresh_module_list();
    EXPECT_EQ(sym_get_line_from_addr(address, line), SYM_STATUS::found);
    EXPECT_EQ(line.line, 8u);
    ASSERT_TRUE(sym_from_addr(address, symbol));
    EXPECT_STREQ(symbol.name, "plugin_first");
    EXPECT_EQ(symbol.displacement, 1u);
    ASSERT_TRUE(sym_get_module_info(address, module));
    EXPECT_STREQ(module.short_name, "plugin_first");
    EXPECT_EQ(module.path, subject("plugin_first.so"));

    std::vector<char> heap(100);
    EXPECT_EQ(ask(heap.data()).status, SYM_STATUS::module_not_listed) << "an address the loader doesn't know";
    EXPECT_EQ(ask(heap.data()).function + ask(heap.data()).module, "");
    sym_release();
    EXPECT_EQ(sym_get_line_from_addr(address, line), SYM_STATUS::module_not_listed) << "afresh after release";
    dlclose(library);
}

TEST_F(MODULES, that_take_the_place_of_others_are_noticed) {
    // One path, one size, most often one address and one loader entry: only the build tells them apart.
    const std::string path = folder + "/libplugin.so";
    int same_place = 0;
    std::uint64_t last = 0;
    for (int round = 0; round < 8; ++round) {
        const bool first = round % 2 == 0;
        std::filesystem::remove(path);
        std::filesystem::copy_file(subject(first ? "plugin_first.so" : "plugin_second.so"), path);
        void* code = load(path);
        same_place += reinterpret_cast<std::uint64_t>(code) == last;
        last = reinterpret_cast<std::uint64_t>(code);
        const ANSWER answer = ask(code);
        EXPECT_EQ(answer.function, first ? "plugin_first" : "plugin_other");
        EXPECT_EQ(answer.module, "plugin");
        dlclose(library);
        EXPECT_EQ(ask(code).status, SYM_STATUS::module_not_listed) << "gone";
    }
    EXPECT_GT(same_place, 0) << "the loader reuses places, or this tests nothing";
}

TEST_F(MODULES, of_the_runtime_have_names_and_no_lines) {
    const ANSWER answer = ask(dlsym(RTLD_DEFAULT, "lfind"));
    EXPECT_EQ(answer.status, SYM_STATUS::no_information);
    EXPECT_EQ(answer.function, "lfind");
    EXPECT_EQ(answer.module, "c");
    sym_serve_runtime_lines(SYM_RUNTIME_LINES::served);
    const bool has_debug_package = std::filesystem::exists("/usr/lib/debug/.build-id"); // that of libc
    const ANSWER served = ask(dlsym(RTLD_DEFAULT, "lfind"));
    sym_serve_runtime_lines(SYM_RUNTIME_LINES::withheld);
    if (has_debug_package) {
        EXPECT_NE(served.file.find("lsearch"), std::string::npos) << served.file;
    }
}

TEST_F(MODULES, find_their_separate_debug_files) {
    const std::string commands = "cd " + folder + " && cp " + subject("plugin_without_id.so") +
                                 " full.so && " + "objcopy --only-keep-debug full.so plugin.debug && ";
    // Linked by name and checksum, in each of the places.
    for (const std::string place : {".", ".debug"}) {
        const std::string name = "linked" + place;
        run(commands + "strip -o " + name + ".so full.so && objcopy --add-gnu-debuglink=plugin.debug " +
            name + ".so && mkdir -p " + place + " && { mv plugin.debug " + place + "/moved; mv " + place +
            "/moved " + place + "/plugin.debug; }");
        const ANSWER answer = ask(load(folder + '/' + name + ".so"));
        EXPECT_EQ(answer.function + ' ' + std::to_string(answer.line), "plugin_first 8") << place;
        std::filesystem::remove(folder + '/' + place + "/plugin.debug");
    }
    // One byte more and the checksum is wrong: the name comes from the exported symbols, there is no line.
    run(commands + "strip -o spoilt.so full.so && objcopy --add-gnu-debuglink=plugin.debug spoilt.so && "
                   "printf x >>plugin.debug");
    const ANSWER answer = ask(load(folder + "/spoilt.so"));
    EXPECT_EQ(answer.function, "plugin_first");
    EXPECT_EQ(answer.status, SYM_STATUS::no_information);
}

TEST_F(MODULES, say_nothing_when_the_file_is_not_what_was_loaded) {
    const std::string path = folder + "/libplugin.so";
    struct REPLACEMENT {
        const char* what;
        void (*replace)(const std::string& path);
    };
    const REPLACEMENT replacements[] = {
        {"nothing", [](const std::string&) {}},
        {"another build",
         [](const std::string& at) { std::filesystem::copy_file(subject("plugin_second.so"), at); }},
        {"a build without id",
         [](const std::string& at) { std::filesystem::copy_file(subject("gcc_O2_dwarf5.so"), at); }},
        {"garbage", [](const std::string& at) { write_file(at, std::string(100000, 'x')); }},
        {"an empty file", [](const std::string& at) { write_file(at, ""); }},
        {"half of itself",
         [](const std::string& at) {
             write_file(at, read_file(subject("plugin_first.so")).substr(0, 8000));
         }},
        {"a folder", [](const std::string& at) { std::filesystem::create_directory(at); }},
        {"a FIFO", [](const std::string& at) { mkfifo(at.c_str(), 0600); }},
        {"a loop", [](const std::string& at) { std::filesystem::create_symlink(at, at); }},
    };
    for (const auto& [what, replace] : replacements) {
        std::filesystem::copy_file(subject("plugin_first.so"), path);
        void* code = load(path);
        std::filesystem::remove(path);
        replace(path);
        const ANSWER answer = ask(code);
        EXPECT_EQ(answer.status, SYM_STATUS::no_information) << what;
        EXPECT_EQ(answer.function, "") << what;
        EXPECT_EQ(answer.module, "plugin") << what;
        dlclose(library);
        sym_release();
        std::filesystem::remove(path);
    }
}

TEST_F(MODULES, leave_no_descriptor_and_no_mapping) {
    const auto before = open_descriptors();
    const std::string path = subject("gcc_O2_split5.so");
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    const auto mapped = [] {
        return run("grep -c '[.]so\\|[.]dwo\\|debug' /proc/" + std::to_string(getpid()) + "/maps");
    };
    const std::string mapped_before = mapped();
    EXPECT_NE(ask(dlsym(handle, "subject_entry")).line, 0u);
    EXPECT_EQ(ask(dlsym(handle, "subject_entry")).function, "subject_entry");
    EXPECT_NE(ask(reinterpret_cast<void*>(&open_descriptors)).line, 0u) << "this program";
    EXPECT_EQ(mapped(), mapped_before);
    EXPECT_EQ(open_descriptors(), before);
    dlclose(handle);
}

} // namespace
