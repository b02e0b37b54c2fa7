// Lines, inlined calls and names of whole modules, byte for byte of their code, against the platform's own
// tools.
#include "helpers.h"

#include <sstream>
#include <utility>

namespace {

enum class ORACLE { addr2line, llvm };

struct CASE {
    const char* name;
    ORACLE
    oracle; // addr2line of binutils 2.40 misreads some address lists of DWARF 5 and knows no .dwo files
    const char* module;
    const char* most; // addresses
};

struct PLACE {
    std::string file;
    unsigned line = 0;
    bool operator==(const PLACE&) const = default;
};

void PrintTo(const PLACE& place, std::ostream* out) {
    *out << place.file << ':' << place.line;
}

std::string tidy(const std::string& path) {
    return std::filesystem::path(path).lexically_normal().string();
}

// A tool's last line of an address: "file:12", "file:12:3", "file:12 (discriminator 4)" or "??:0".
PLACE parse_place(std::string text, ORACLE oracle) {
    text = text.substr(0, text.find(" (discriminator"));
    if (oracle == ORACLE::llvm) {
        text = text.substr(0, text.rfind(':')); // the column
    }
    const std::size_t colon = text.rfind(':');
    PLACE place{text.substr(0, colon),
                static_cast<unsigned>(std::strtoul(text.c_str() + colon + 1, nullptr, 10))};
    if (place.file == "??" || (place.line == 0 && place.file.find('/') == std::string::npos)) {
        return {}; // no debug information: at best the symbol table names a file
    }
    place.file = tidy(place.file);
    return place;
}

struct ORACLE_ANSWER {
    std::string function;
    PLACE outermost;
};

std::vector<ORACLE_ANSWER> ask_oracle(ORACLE oracle, const std::string& module,
                                      const std::string& addresses) {
    const std::string tool =
        oracle == ORACLE::llvm ? "llvm-symbolizer --inlines -C -e " : "addr2line -a -i -f -C -e ";
    std::istringstream lines(run(tool + module + " <" + addresses + " 2>/dev/null"));
    std::vector<ORACLE_ANSWER> answers;
    std::string before;
    std::string last;
    // Blank lines (llvm) or the address itself (addr2line) stand between the answers.
    const auto finish = [&] {
        if (!last.empty()) {
            answers.push_back({before, parse_place(last, oracle)});
        }
        before.clear();
        last.clear();
    };
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line.starts_with("0x")) {
            finish();
        } else {
            before = std::exchange(last, line);
        }
    }
    finish();
    return answers;
}

class LINES : public SYMBOL_TEST, public testing::WithParamInterface<CASE> {};

TEST_P(LINES, agree_with_the_platforms_tools) {
    const bool is_program = std::string(GetParam().module).starts_with("describe");
    const std::string module =
        is_program ? subject(std::string("../") + GetParam().module) : subject(GetParam().module);
    std::istringstream described(run(
        (is_program ? module + " self " : subject("../describe") + ' ' + module + ' ') + GetParam().most));
    std::vector<std::array<std::string, 4>> rows;
    std::string addresses;
    for (std::string text; std::getline(described, text);) {
        std::istringstream fields(text);
        auto& row = rows.emplace_back();
        for (std::string& field : row) {
            std::getline(fields, field, '|');
        }
        addresses += row[0] + '\n';
    }
    write_file(folder + "/addresses", addresses);
    const auto expected = ask_oracle(GetParam().oracle, module, folder + "/addresses");
    ASSERT_EQ(expected.size(), rows.size());

    int with_lines = 0;
    int failures = 0;
    for (std::size_t index = 0; index < rows.size() && failures < 5; ++index) {
        const auto& [address, function, file, line] = rows[index];
        const PLACE place{file.empty() ? "" : tidy(file), static_cast<unsigned>(std::stoul(line))};
        const ORACLE_ANSWER& oracle = expected[index];
        EXPECT_EQ(place, oracle.outermost) << address << ' ' << function;
        failures += place != oracle.outermost;
        with_lines += place.line != 0;
    }
    EXPECT_GT(with_lines, static_cast<int>(rows.size() / 2)) << "the subject carries lines";
}

INSTANTIATE_TEST_SUITE_P(
    subjects, LINES,
    testing::Values(CASE{"gcc_O0_dwarf4", ORACLE::addr2line, "gcc_O0_dwarf4.so", "100000"},
                    CASE{"gcc_O2_dwarf5", ORACLE::addr2line, "gcc_O2_dwarf5.so", "100000"},
                    CASE{"gcc_O2_compressed", ORACLE::addr2line, "gcc_O2_compressed.so", "100000"},
                    CASE{"gcc_O2_sections_dropped", ORACLE::addr2line, "gcc_O2_sections_dropped.so",
                         "100000"},
                    CASE{"gcc_O2_lto", ORACLE::llvm, "gcc_O2_lto.so", "100000"},
                    CASE{"gcc_O2_split4", ORACLE::llvm, "gcc_O2_split4.so", "100000"},
                    CASE{"gcc_O2_split5", ORACLE::llvm, "gcc_O2_split5.so", "100000"},
                    CASE{"clang_O0_dwarf5", ORACLE::addr2line, "clang_O0_dwarf5.so", "100000"},
                    CASE{"clang_O2_dwarf4", ORACLE::addr2line, "clang_O2_dwarf4.so", "100000"},
                    CASE{"clang_O2_dwarf5", ORACLE::llvm, "clang_O2_dwarf5.so", "100000"},
                    CASE{"clang_O2_split5", ORACLE::llvm, "clang_O2_split5.so", "100000"},
                    CASE{"position_independent_program", ORACLE::llvm, "describe", "20000"},
                    CASE{"fixed_program", ORACLE::llvm, "describe_fixed", "20000"}),
    [](const auto& test) { return std::string(test.param.name); });

} // namespace
