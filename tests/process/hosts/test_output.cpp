// What the library writes beside the tracking reports: fast leak reports, load lines, the allocator lines,
// and where it takes its configuration from.

#include "tests/support/report_rows.h"
#include "tests/support/run_child.h"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>

namespace {

const std::string FAST_REPORT = "mem_tbb_fast_leak_warning.log";
const std::string ZV_REPORT = "tarvane_zv_leak_warning.txt";

TEST_OUTCOME run_host(const TEST_DIRECTORY& directory, const TEST_ENVIRONMENT& environment) {
    const TEST_OUTCOME outcome = test_run_child({{VBX_TEST_HOST}, environment, ""}, directory);
    EXPECT_EQ(outcome.end(), "exit 9") << outcome.standard_error;
    return outcome;
}

// Lines of ours in order; what can come in any number or order is left out.
std::vector<std::string> lines_of(const std::string& text) {
    std::istringstream stream(text);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        if (line.find("Memory tracking:") == std::string::npos)
            lines.push_back(line);
    return lines;
}

// Leaked bytes of each block of a fast report whose every line is as it should be.
std::vector<long long> read_fast_report(const std::string& path) {
    std::string text = test_read_file(path);
    const std::string head = "For more detail, use INI mem_check_leaks=on\n\n";
    EXPECT_TRUE(text.starts_with(head)) << text;
    text.erase(0, head.size());
    static const std::regex block(" memory leak summary\n={31}\nLeaked bytes:      ([ \\d]{11}\\d)\n"
                                  "Peak bytes on heap:([ \\d]{11}\\d)\n={31}\n\n");
    std::vector<long long> leaked;
    for (std::smatch match; std::regex_search(text, match, block, std::regex_constants::match_continuous);) {
        leaked.push_back(std::stoll(match[1]));
        EXPECT_GE(std::stoll(match[2]), leaked.back());
        text = match.suffix();
    }
    EXPECT_EQ(text, "");
    return leaked;
}

TEST(Output, FastLeakReportsOfTwoProcessesStandInOneFile) {
    const TEST_DIRECTORY directory;
    for (int run = 0; run < 2; ++run)
        run_host(directory, {{"TARVANE_MEM_CHECK_LEAKS_FAST", "1"}});
    const std::vector<long long> leaked = read_fast_report(directory / FAST_REPORT);
    ASSERT_EQ(leaked.size(), 2U);
    EXPECT_GE(leaked[0], 1'234'567);
    EXPECT_EQ(leaked[0], leaked[1]);
    EXPECT_EQ(directory.files(""), std::vector<std::string>{FAST_REPORT});
}

TEST(Output, LeakReportGoesToTheFileOfTheSiblingTool) {
    const TEST_ENVIRONMENT zv_mode = {{"MEM_LEAK_TRACKING_IN_ZV_MODE", "1"}};
    const TEST_DIRECTORY fast;
    run_host(fast, zv_mode);
    EXPECT_EQ(read_fast_report(fast / ZV_REPORT).size(), 1U);
    EXPECT_EQ(fast.files(""), std::vector<std::string>{ZV_REPORT});

    const TEST_DIRECTORY full;
    run_host(full, zv_mode + TEST_ENVIRONMENT{{"TARVANE_MEM_CHECK_LEAKS", "1"}});
    EXPECT_GE(test_read_leak_report(full / ZV_REPORT).total, 1'234'567);
    EXPECT_EQ(full.files(""), std::vector<std::string>{ZV_REPORT});
}

const std::vector<std::string> ALLOCATOR_LINES = {"Debug: MEM: Native allocator:          'TBBmalloc'",
                                                  "Debug: MEM: Allocator used by Tarvane: 'TBBmalloc'"};

TEST(Output, LoadLinesFrameTheProcessAndAllocatorLinesEndIt) {
    const TEST_DIRECTORY directory;
    const TEST_OUTCOME outcome =
        run_host(directory, test_all_switches() + TEST_ENVIRONMENT{{"MEM_PRINT_LIB_LOAD", ""}});
    const std::vector<std::string> expected = {"Loading: MEM",   "Loading: host",    "Unloading: host",
                                               "Unloading: MEM", ALLOCATOR_LINES[0], ALLOCATOR_LINES[1]};
    EXPECT_EQ(lines_of(outcome.standard_output), expected);
    EXPECT_EQ(outcome.standard_error, "");
}

#if !defined(VBX_TEST_SANITIZED)
TEST(Output, PreloadedLinesGoToStandardError) {
    const TEST_DIRECTORY directory;
    const TEST_ENVIRONMENT environment =
        test_preload() + test_all_switches() +
        TEST_ENVIRONMENT{{"MEM_PRINT_LIB_LOAD", "0"}, {"TARVANE_MEM_PRELOAD_TAG", "%%a/%e-%p"}};
    const TEST_OUTCOME outcome = test_run_child({{"/bin/true"}, environment, ""}, directory);
    const std::vector<std::string> expected = {"Loading: MEM",       "Loading: preload", "Unloading: MEM",
                                               "Unloading: preload", ALLOCATOR_LINES[0], ALLOCATOR_LINES[1]};
    EXPECT_EQ(lines_of(outcome.standard_error), expected);
    EXPECT_EQ(outcome.standard_output, "");
    const auto reports = directory.files("mem_tbb_fileline.");
    ASSERT_EQ(reports.size(), 1U);
    EXPECT_TRUE(std::regex_match(reports[0], std::regex("mem_tbb_fileline\\.%a_true-\\d+\\.log")))
        << reports[0];
}
#endif

// Each of the three kinds of query looks once for the library, at its first query. While the process loads,
// the first two kinds are asked, so a library that comes later is found by the third alone.
TEST(Output, ConfigurationComesFromTheLibraryThatWasThereAtTheFirstQuery) {
    const struct {
        std::vector<std::string> command;
        const char* answers;
    } cases[] = {{{VBX_TEST_CONFIGURED_HOST, "ask_configuration"}, "1 library 43"},
                 {{VBX_TEST_HOST, "ask_configuration", VBX_TEST_CONFIGURATION}, "0 7 43"},
                 {{VBX_TEST_HOST, "ask_configuration"}, "0 7 7"}};
    for (const auto& [command, answers] : cases) {
        const TEST_DIRECTORY directory;
        const TEST_OUTCOME outcome = test_run_child({command, {{"probe", "7"}}, ""}, directory);
        EXPECT_EQ(lines_of(outcome.standard_output), std::vector<std::string>{answers});
    }
}

} // namespace
