// Lines of whole modules, byte for byte of their code, against the platform's own tools.
#include "helpers.h"

#include <link.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

namespace {

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

// By the name of the subject; "self" is this program.
class LINES : public SYMBOL_TEST, public testing::WithParamInterface<std::string> {};

TEST_P(LINES, agree_with_the_platforms_tools_and_leave_no_file_open) {
    const bool is_self = GetParam() == "self";
    const std::string path = is_self ? "/proc/self/exe" : SUBJECTS + GetParam() + ".so";
    const void* const handle = dlopen(is_self ? nullptr : path.c_str(), RTLD_LAZY); // no part is complete
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
    std::istringstream answers(run("llvm-addr2line -a -i -e " + file + " <addresses 2>/dev/null"));
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

INSTANTIATE_TEST_SUITE_P(subjects, LINES,
                         testing::Values("gcc_dwarf4", "gcc_dwarf5", "gcc_lto", "gcc_split4", "gcc_split5",
                                         "clang_dwarf4", "clang_dwarf5", "clang_split5", "self"),
                         [](const auto& test) { return test.param; });

} // namespace
