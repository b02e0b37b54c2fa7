// Every planted site stands in its own line and function with what was allocated there, whatever compiler and
// optimisation the program was built with. (What the figures of sites do later, the example suite shows.)
#include "tests/support/report_rows.h"
#include "tests/support/run_child.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

namespace {

struct PLANTED {
    std::string blocks_and_bytes; // "10 1120"
    std::string function;         // how its name begins
};

// By the lines of the marks in the source.
std::map<std::string, PLANTED> read_marks() {
    std::map<std::string, PLANTED> marks;
    std::istringstream stream(test_read_file(PLANTED_SOURCE));
    std::string line;
    for (int number = 1; std::getline(stream, line); ++number)
        if (const std::size_t mark = line.find("// SITE "); mark != std::string::npos) {
            const std::size_t function = line.rfind(' ') + 1, figures = mark + 8;
            marks[PLANTED_SOURCE ":" + std::to_string(number)] = {
                line.substr(figures, function - 1 - figures), line.substr(function)};
        }
    return marks;
}

class Figures : public testing::TestWithParam<std::string> {};

TEST_P(Figures, StandAtTheLineAndFunctionOfTheAllocation) {
    const TEST_DIRECTORY directory;
    const TEST_OUTCOME outcome =
        test_run_child({{BUILT + GetParam()}, {{"TARVANE_MEM_PROFILE_ALL", "1"}}}, directory);
    ASSERT_EQ(outcome.end, "exit 0") << outcome.standard_error;
    const auto marks = read_marks();
    std::map<std::string, TEST_FIGURES> reported; // a line can have several addresses
    for (const TEST_ROW& row : test_read_report(directory / "mem_tbb_fileline.tvx.log", "Fileline")) {
        if (!row.place.starts_with(PLANTED_SOURCE))
            continue;
        ASSERT_TRUE(marks.contains(row.place)) << row.place << " " << row.function;
        EXPECT_TRUE(row.function.starts_with(marks.at(row.place).function)) << row.place << row.function;
        test_add(reported[row.place], row.figures);
    }
    for (const auto& [place, planted] : marks) {
        TEST_FIGURES& figures = reported[place];
        EXPECT_EQ(std::to_string(figures["Cumulative blocks"]) + " " +
                      std::to_string(figures["Cumulative bytes"]),
                  planted.blocks_and_bytes)
            << place;
    }
}

INSTANTIATE_TEST_SUITE_P(Builds, Figures, testing::Values(PLANTED_BUILDS), [](const auto& build) {
    return build.param.substr(0, build.param.find('+')) + build.param.substr(build.param.rfind('_'));
});

} // namespace
