// Every planted site stands in its own line and function with what was allocated there, whatever compiler and
// optimisation the program was built with. (What the figures of sites do later, the example suite shows.)
#include "tests/support/report_rows.h"
#include "tests/support/run_child.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

// "10 1120 function" by the lines of the marks in the source: blocks, bytes and how the function's name
// begins.
std::map<std::string, std::string> read_marks() {
    std::map<std::string, std::string> marks;
    std::istringstream stream(test_read_file(PLANTED));
    std::string line;
    for (int number = 1; std::getline(stream, line); ++number)
        if (const std::size_t mark = line.find("// SITE "); mark != std::string::npos)
            marks[PLANTED ":" + std::to_string(number)] = line.substr(mark + 8);
    return marks;
}

class Figures : public testing::TestWithParam<std::string> {};

TEST_P(Figures, StandAtTheLineAndFunctionOfTheAllocation) {
    const TEST_DIRECTORY directory;
    const TEST_OUTCOME outcome =
        test_run_child({{BUILT + GetParam()}, {{"TARVANE_MEM_PROFILE_ALL", "1"}}}, directory);
    ASSERT_EQ(outcome.end, "exit 0") << outcome.standard_error;
    auto marks = read_marks();
    std::map<std::string, TEST_FIGURES> reported; // a line can have several addresses
    std::map<std::string, std::string> functions;
    for (const TEST_ROW& row : test_read_report(directory / "mem_tbb_fileline.tvx.log", "Fileline"))
        if (row.place.starts_with(PLANTED)) {
            test_add(reported[row.place], row.figures);
            functions[row.place] = row.function;
        }
    for (auto& [place, figures] : reported) {
        const std::string found = std::to_string(figures["Cumulative blocks"]) + " " +
                                  std::to_string(figures["Cumulative bytes"]) + " " + functions[place];
        EXPECT_TRUE(marks.contains(place) && found.starts_with(marks[place])) << place << ": " << found;
        marks.erase(place);
    }
    EXPECT_TRUE(marks.empty()) << "no row for " << marks.begin()->first;
}

INSTANTIATE_TEST_SUITE_P(Builds, Figures, testing::Values(PLANTED_BUILDS), [](const auto& build) {
    return build.param.substr(0, build.param.find('+')) + build.param.substr(build.param.rfind('_'));
});

} // namespace
