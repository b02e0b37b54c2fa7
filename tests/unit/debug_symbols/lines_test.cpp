// Lines of whole modules, byte for byte of their code, against the platform's own tools.
#include "helpers.h"

#include <link.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

namespace {

struct CASE {
    const char* subject; // null: this program
    const char* oracle;  // binutils' misreads DWARF 5 at times and knows no .dwo files
    friend void PrintTo(const CASE& one, std::ostream* stream) { *stream << one.oracle; }
};

struct CODE {
    std::uint64_t base, start, end;
};

CODE code_of(const void* handle) {
    const std::uint64_t base = static_cast<const link_map*>(handle)->l_addr;
    const auto* const header = reinterpret_cast<const Elf64_Ehdr*>(base);
    const auto* segment = reinterpret_cast<const Elf64_Phdr*>(base + header->e_phoff);
    while (segment->p_type != PT_LOAD || (segment->p_flags & PF_X) == 0)
        ++segment;
    return {base, base + segment->p_vaddr, base + segment->p_vaddr + segment->p_memsz};
}

// From "file:12", "file:12 (discriminator 4)" or "??:0".
std::string tidy(std::string place) {
    place = place.substr(0, place.find(" (discriminator"));
    const std::size_t colon = place.rfind(':');
    const std::string line = std::to_string(std::atoi(place.c_str() + colon + 1));
    const std::string file = place.substr(0, colon);
    // No debug information: at best the symbol table names a file.
    if (file == "??" || (line == "0" && file.find('/') == std::string::npos))
        return "";
    return std::filesystem::path(file).lexically_normal().string() + ':' + line;
}

class LINES : public SYMBOL_TEST, public testing::WithParamInterface<CASE> {};

TEST_P(LINES, agree_with_the_platforms_tools_and_leave_no_file_open) {
    const auto& [subject, oracle] = GetParam();
    const std::string path = subject != nullptr ? SUBJECTS + std::string(subject) + ".so" : "/proc/self/exe";
    const void* const handle = dlopen(subject != nullptr ? path.c_str() : nullptr, RTLD_NOW);
    ASSERT_NE(handle, nullptr) << dlerror();
    const CODE code = code_of(handle);
    const std::string open_files =
        "readlink /proc/$PPID/fd/* | grep '^/'; grep '[.]so\\|[.]dwo\\|debug' /proc/$PPID/maps";
    const std::string open_before = run(open_files);
    std::vector<std::string> places;
    std::ostringstream addresses;
    const std::uint64_t step = (code.end - code.start) / 100'000 + 1;
    for (std::uint64_t address = code.start; address < code.end; address += step) {
        places.push_back(ask(address + 1).place);
        addresses << std::hex << "0x" << address - code.base << '\n';
    }
    EXPECT_EQ(run(open_files), open_before);

    write_file(folder / "addresses", addresses.str());
    const std::string file = std::filesystem::canonical(path);
    std::istringstream answers(run(oracle + (" -a -i -e " + file) + " <addresses 2>/dev/null"));
    std::vector<std::string> expected; // of each address the last place, its outermost
    for (std::string line; std::getline(answers, line);)
        if (line.starts_with("0x"))
            expected.emplace_back();
        else
            expected.back() = line;
    ASSERT_EQ(expected.size(), places.size());
    for (std::size_t index = 0; index < places.size(); ++index)
        ASSERT_EQ(tidy(places[index]), tidy(expected[index])) << code.start + index * step - code.base;
    EXPECT_GT(std::ssize(places), std::ranges::count(places, "") * 3 / 2) << "the subject carries lines";
}

INSTANTIATE_TEST_SUITE_P(
    subjects, LINES,
    testing::Values(CASE{"gcc_dwarf4", "addr2line"}, CASE{"gcc_dwarf5", "llvm-addr2line"},
                    CASE{"gcc_lto", "llvm-addr2line"}, CASE{"gcc_split4", "llvm-addr2line"},
                    CASE{"gcc_split5", "llvm-addr2line"}, CASE{"clang_dwarf4", "addr2line"},
                    CASE{"clang_dwarf5", "llvm-addr2line"}, CASE{"clang_split5", "llvm-addr2line"},
                    CASE{nullptr, "llvm-addr2line"}),
    [](const auto& test) {
        return std::string(test.param.subject != nullptr ? test.param.subject : "self");
    });

} // namespace
