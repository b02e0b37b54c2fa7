// Every figure of every planted site is the one computed by hand, whatever compiler and
// optimisation the program was built with; and each site points where addr2line says.
#include "tests/support/report_rows.h"
#include "tests/support/run_child.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

namespace {

struct PLANTED {
    const char* name;
    std::int64_t size;  // of one block
    std::int64_t asked; // in all
    struct {
        std::int64_t ever, highest, at_tide, at_end;
    } blocks;
    std::int64_t mismatched_blocks = 0;
};

constexpr PLANTED SITES[] = {
    {"malloc", 112, 1000, {10, 10, 6, 4}},
    {"calloc", 80, 70, {1, 1, 1, 0}},
    {"before_growth", 112, 100, {1, 1, 0, 0}},
    {"growth", 5376, 5000, {1, 1, 1, 0}},
    {"plain_new", 224, 200, {1, 1, 0, 0}},
    {"plain_new_again", 224, 200, {1, 1, 1, 1}},
    {"template", 160, 160, {1, 1, 1, 1}},
    {"inlined", 1024, 1000, {1, 1, 1, 1}},
    {"string", 1024, 1001, {1, 1, 1, 0}},
    {"aligned", 128, 128, {1, 1, 1, 0}},
    {"handed_over", 512, 2500, {5, 5, 2, 2}, 3},
    {"large_handed_over", 20000, 20000, {1, 1, 0, 0}}, // blocks of this size belong to no thread
    {"thread", 320, 300, {1, 1, 1, 0}, 1},
    {"tide", 64 << 20, 64 << 20, {1, 1, 1, 0}},
    {"lambda", 896, 800, {1, 1, 1, 1}},
    {"library", 4032, 3000, {1, 1, 1, 1}},
};

// By "file:line" of the marks in the sources.
std::map<std::string, TEST_FIGURES> expected_figures() {
    std::map<std::string, std::string> places;
    for (const std::string file : {SOURCES "planted.cpp", SOURCES "planted_library.cpp"}) {
        std::istringstream stream(test_read_file(file));
        std::string line;
        for (int number = 1; std::getline(stream, line); ++number)
            if (const std::size_t mark = line.find("// SITE "); mark != std::string::npos)
                places[line.substr(mark + 8)] = file + ":" + std::to_string(number);
    }
    // Room for 1, 2, 4 and 8 numbers; each new block is there before the old one goes.
    std::map<std::string, TEST_FIGURES> expected = {
        {places.at("vector"), {0, 16 + 32, 32, 8 + 8 + 16 + 32, 4 + 8 + 16 + 32, 0, 0, 2, 1, 4}}};
    for (const auto& [name, size, asked, blocks, mismatched] : SITES) {
        const auto [ever, highest, at_tide, at_end] = blocks;
        expected[places.at(name)] = {at_end * size,     highest * size, at_tide * size, ever * size, asked,
                                     mismatched * size, at_end,         highest,        at_tide,     ever};
    }
    EXPECT_EQ(expected.size(), places.size()) << "a mark without figures";
    return expected;
}

class Figures : public testing::TestWithParam<std::string> {
  protected:
    // Function and "file:line" of the outermost function around an address, as a tool sees them. For clang's
    // programs that of its own tools: binutils' loses its inlined calls.
    std::pair<std::string, std::string> ask_addr2line(const TEST_ROW& row) const {
        const bool is_in_library = row.module == "planted_library";
        const auto base = is_in_library ? std::stoull(outcome.standard_error, nullptr, 16) : 0;
        std::ostringstream address;
        address << std::hex << std::stoull(row.name, nullptr, 16) - base - 1;
        const std::string tool = GetParam().starts_with("clang") ? "llvm-addr2line" : "addr2line";
        std::istringstream stream(
            test_run_child({{tool, "-ifCe", is_in_library ? LIBRARY : program, address.str()}}, directory)
                .standard_output);
        std::pair<std::string, std::string> last;
        for (std::string line; std::getline(stream, line); last.first = line)
            std::getline(stream, last.second);
        last.second = last.second.substr(0, last.second.find(" (discriminator"));
        return last;
    }

    const TEST_DIRECTORY directory;
    const std::string program = BUILT "planted_" + GetParam();
    const TEST_OUTCOME outcome = test_run_child({{program}, {{"TARVANE_MEM_PROFILE_ALL", "1"}}}, directory);
    const std::vector<TEST_ROW> rows =
        test_read_report(directory / "mem_tbb_fileline.planted.log", "Fileline");
};

TEST_P(Figures, OfEverySiteAreTheKnownOnesWhereAddr2lineSays) {
    ASSERT_EQ(outcome.end, "exit 0") << outcome.standard_error;
    std::map<std::string, TEST_FIGURES> reported;
    for (const TEST_ROW& row : rows) {
        if (!row.place.starts_with(SOURCES "planted") || row.function.starts_with("run_on_thread"))
            continue;
        test_add(reported[row.place], row.figures);
        const auto [function, place] = ask_addr2line(row);
        EXPECT_EQ(row.place, place);
        // addr2line writes the return type of a template's instance.
        EXPECT_TRUE(function.ends_with(row.function)) << row.function << " is not " << function;
    }
    EXPECT_EQ(reported, expected_figures());
}

INSTANTIATE_TEST_SUITE_P(Builds, Figures, testing::Values(BUILDS), [](const auto& build) {
    return build.param.substr(0, build.param.find('+')) + build.param.substr(build.param.find('_'));
});

} // namespace
