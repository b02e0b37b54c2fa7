// Whatever is given to the library from outside, its host lives on and ends as it would have, with one
// exception that is meant: a numeric key that holds no number. And what the library writes beside the
// tracking reports.
#include "tests/support/report_rows.h"
#include "tests/support/run_child.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <regex>

namespace {

using LINES = std::vector<std::string>;

const TEST_ENVIRONMENT PER_FILELINE = {{"TARVANE_MEM_PROFILE_PER_FILELINE", "1"}};
const std::string REPORT = "mem_tbb_fileline.tvx.log";

TEST_OUTCOME run_host(const TEST_DIRECTORY& directory, const TEST_ENVIRONMENT& environment,
                      LINES command = {HOST}) {
    if (command[0] != HOST && command[0] != CONFIGURED_HOST)
        command.insert(command.begin(), HOST);
    const TEST_OUTCOME outcome = test_run_child({command, environment}, directory);
    EXPECT_EQ(outcome.end, "exit 9") << outcome.standard_error;
    return outcome;
}

// Variables and keys have rules of their own for what is "on", and for numbers.
TEST(BadInput, SwitchesAreOnOrOffAndNumbersAreReplacedOrEndTheLoad) {
    const std::string site = "TARVANE_MEM_PROFILE_PER_FILELINE";
    const std::string site_key = "mem_profile_per_fileline";
    const std::string threshold = "TARVANE_MEM_PROFILE_FILELINE_PEAK_SNAPSHOT_THRESHOLD";
    const std::string threshold_key = "mem_profile_fileline_peak_snapshot_threshold";
    const std::string period = "TARVANE_MEM_PROFILE_LIBRARY_SNAPSHOT_PERIOD";
    const std::string period_key = "mem_profile_library_snapshot_period";
    const struct {
        std::string name, value, output, message = {}, end = "exit 9";
    } cases[] = {
        {site, "1", "mask 8\n"},
        {site, "0", "mask 0\n"},
        {site, "", "mask 0\n"},
        {site, "off", "mask 8\n"},
        {site, "-1", "mask 8\n"},
        {site, "00", "mask 8\n"},
        {site, std::string(5000, '9'), "mask 8\n"},
        {"TARVANE_MEM_PROFILE_ALL", "1", "mask 95\n"},
        {"TARVANE_MEM_CHECK_LEAKS_FAST", "1", "mask 32\n"},
        {site_key, "ON", "mask 8\n"},
        {site_key, "1", "mask 8\n"},
        {site_key, "2", "mask 0\n"},
        {site_key, "", "mask 0\n"},
        {"mem_only_profile_single_executable", "another", "mask 0\n"},
        {threshold, "0", "mask 0\n"},
        {threshold, "text", "mask 0\n"},
        {threshold, "-5", "mask 0\n", "MEM: " + threshold},
        {threshold, "99999999999999999999999", "mask 0\n", "MEM: " + threshold},
        {period, "", "mask 0\n"},
        {period, "99999999999999999999999", "mask 0\n"},
        {period_key, "0", "mask 0\n", "MEM: " + period_key},
        {period_key, "12 apples", "mask 0\n"},
        {period_key, "apples", "", "invalid_argument", "signal 6"},
        {period_key, "99999999999999999999999", "", "out_of_range", "signal 6"},
        {threshold_key, "-1", "mask 0\n", "MEM: " + threshold_key},
        {threshold_key, "x", "", "invalid_argument", "signal 6"},
    };
    for (const auto& [name, value, output, message, end] : cases) {
        SCOPED_TRACE(name + "=" + value.substr(0, 20));
        const TEST_DIRECTORY directory;
        const TEST_OUTCOME outcome = test_run_child({{HOST, "mask"}, {{name, value}}}, directory);
        EXPECT_EQ(outcome.end, end);
        EXPECT_NE(outcome.standard_output.find(output), std::string::npos) << outcome.standard_output;
        EXPECT_EQ(outcome.standard_error.empty(), message.empty());
        EXPECT_NE(outcome.standard_error.find(message), std::string::npos) << outcome.standard_error;
    }
}

// No host's locale, closed descriptor, odd name or spoilt symbol file shows in the row of its one leak.
TEST(BadInput, HostsThatChangeTheirSurroundingsGetTheirReports) {
    std::vector<LINES> actions = {{"none"}, {"close_output"}, {"group_digits"}, {"tag", "a b.%e"}};
    for (const char* const kept_bytes : {"0", "30", "64", "1000", "9000", "14000", "100000000"})
        actions.push_back({"replace_file", NEW_CODE, kept_bytes});
    for (const LINES& action : actions) {
        SCOPED_TRACE(action[0] + " " + action.back());
        const TEST_DIRECTORY directory;
        run_host(directory, PER_FILELINE, action);
        const auto rows = test_read_report(
            directory / (action[0] == "tag" ? "mem_tbb_fileline.a b.%e.log" : REPORT), "Fileline");
        EXPECT_EQ(std::ranges::count_if(rows,
                                        [](const TEST_ROW& row) {
                                            return row.figures[requested_bytes] == 1'234'567 &&
                                                   row.figures[current_blocks] == 1;
                                        }),
                  1);
    }
}

TEST(BadInput, FilesAndStreamsThatCannotBeWrittenArePassedOver) {
    const TEST_DIRECTORY removed;
    EXPECT_EQ(run_host(removed, test_all_switches(), {"remove_directory"}).standard_error, "");
    const TEST_DIRECTORY small; // the kernel answers longer files with a signal
    EXPECT_EQ(run_host(small, test_all_switches(), {"limit_files"}).standard_error, "");
    EXPECT_EQ(test_read_file(small / REPORT).size(), 300U);
    EXPECT_EQ(test_read_file(small / "mem_tbb_subsystem.tvx.log").size(), 300U);
    const TEST_DIRECTORY piped; // nobody reads the pipe
    ASSERT_EQ(mkfifo((piped / REPORT).c_str(), 0600), 0);
    run_host(piped, PER_FILELINE, {"none"});
    EXPECT_NE(test_read_file(piped / "mem_tbb_subsystem.tvx.log"), "");
    run_host(TEST_DIRECTORY(), {{"debug_msg", "on"}, {"MEM_PRINT_LIB_LOAD", "1"}}, {"lock_output"});
    const TEST_DIRECTORY directory; // no file can have such a name
    const TEST_ENVIRONMENT long_name = {{"HOST_LONG_NAME", "1"}, {"MEM_PRINT_LIB_LOAD", "1"}};
    const TEST_OUTCOME outcome =
        run_host(directory, PER_FILELINE + long_name, {"tag", std::string(300, 't')});
    EXPECT_NE(outcome.standard_output.find("Loading: " + std::string(10'000, 'n') + "\n"), std::string::npos);
    const TEST_OUTCOME preloaded = run_host(directory, test_preload() + long_name);
    EXPECT_NE(preloaded.standard_error.find("nnn\nUnloading: MEM\n"), std::string::npos);
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
        EXPECT_GE(leaked.back(), 1'234'567);
        text = match.suffix();
    }
    EXPECT_EQ(text, "");
    return leaked;
}

TEST(Output, LeakReportsOfTwoProcessesStandInOneFileOrInThatOfTheSiblingTool) {
    const std::string fast = "mem_tbb_fast_leak_warning.log";
    const std::string sibling = "tarvane_zv_leak_warning.txt";
    const TEST_ENVIRONMENT zv_mode = {{"MEM_LEAK_TRACKING_IN_ZV_MODE", "1"}};
    for (const std::string& report : {fast, sibling}) {
        const TEST_DIRECTORY directory;
        for (int run = 0; run < 2; ++run)
            run_host(directory,
                     report == fast ? TEST_ENVIRONMENT{{"TARVANE_MEM_CHECK_LEAKS_FAST", "1"}} : zv_mode);
        const std::vector<long long> leaked = read_fast_report(directory / report);
        EXPECT_TRUE(leaked.size() == 2 && leaked.front() == leaked.back()) << report;
        EXPECT_EQ(directory.files(""), LINES{report});
    }
    const TEST_DIRECTORY directory;
    run_host(directory, zv_mode + TEST_ENVIRONMENT{{"TARVANE_MEM_CHECK_LEAKS", "1"}});
    const std::regex leak("\\nhost leaked 1[\\d]{6} bytes in 1 object\\(s\\) allocated at .*/host\\.cpp:");
    EXPECT_TRUE(std::regex_search(test_read_file(directory / sibling), leak));
    EXPECT_EQ(directory.files(""), LINES{sibling});
}

// Load lines frame the process and the allocator lines end it; what can come in any number is left out.
TEST(Output, LoadLinesGoToStandardOutputAndPreloadedOnesToStandardError) {
    const std::regex tracking("[^\n]*Memory tracking:[^\n]*\n");
    for (const std::string name : {"host", "preload"}) {
        const TEST_DIRECTORY directory;
        TEST_ENVIRONMENT environment = test_all_switches() + TEST_ENVIRONMENT{{"MEM_PRINT_LIB_LOAD", "0"}};
        if (name == "preload")
            environment =
                test_preload() + environment + TEST_ENVIRONMENT{{"TARVANE_MEM_PRELOAD_TAG", "%%a/%e-%p"}};
        const TEST_OUTCOME outcome =
            test_run_child({{name == "host" ? HOST : "/bin/true"}, environment}, directory);
        const bool is_host = name == "host";
        const std::string& written = is_host ? outcome.standard_output : outcome.standard_error;
        EXPECT_EQ(is_host ? outcome.standard_error : outcome.standard_output, "");
        const std::string end =
            is_host ? "Unloading: host\nUnloading: MEM\n" : "Unloading: MEM\nUnloading: preload\n";
        EXPECT_EQ(std::regex_replace(written, tracking, ""),
                  "Loading: MEM\nLoading: " + name + "\n" + end +
                      "Debug: MEM: Native allocator:          'TBBmalloc'\n"
                      "Debug: MEM: Allocator used by Tarvane: 'TBBmalloc'\n");
        const LINES reports = directory.files("mem_tbb_fileline.");
        ASSERT_EQ(reports.size(), 1U);
        const std::regex file("mem_tbb_fileline\\.(tvx|%a_true-\\d+)\\.log");
        EXPECT_TRUE(std::regex_match(reports[0], file)) << reports[0];
    }
}

TEST(Output, CodeModulesAreListedByTheProcessThatRegisteredThem) {
    const TEST_DIRECTORY directory;
    std::string expected;
    for (const char* const pair :
         {" was last compiled using PGO for:", "parser was last compiled using PGO for:x",
          "parser was last compiled using PGO for:y", "router was last compiled using PGO for:small",
          "\xE4 was last compiled using PGO for:z"})
        expected += "Debug: PGO: The code module " + std::string(pair) + "\n";
    const LINES action = {"register_code_modules"};
    EXPECT_EQ(run_host(directory, {}, action).standard_output, "");
    const std::string written = run_host(directory, {{"debug_msg", "on"}}, action).standard_output;
    EXPECT_EQ(written.substr(0, written.find("Debug: MEM: ")), expected) << written;
}

// Nothing of the two sizes is to be had, and the sum with the alignment doesn't even fit a number.
TEST(Output, ChunkAllocatorGivesAllBackAndExhaustedEndsTheProcessWithItsReports) {
    const TEST_ENVIRONMENT per_bin = {{"TARVANE_MEM_PROFILE_PER_BIN", "1"}};
    for (const char* const is_off : {"off", "on"}) {
        const TEST_ENVIRONMENT environment =
            per_bin + TEST_ENVIRONMENT{{"mem_utils_no_chunk_allocation", is_off}};
        EXPECT_EQ(run_host(TEST_DIRECTORY(), environment, {"use_chunks"}).standard_output, "0 left\n")
            << is_off;
    }
    for (const char* const size : {"18446744073709551610", "9000000000000000000"}) {
        const TEST_DIRECTORY directory;
        const TEST_OUTCOME outcome =
            test_run_child({{HOST, "exhaust_chunks", size}, PER_FILELINE}, directory);
        EXPECT_EQ(outcome.end, "exit 1");
        EXPECT_NE(outcome.standard_output.find("before"), std::string::npos) << outcome.standard_output;
        const std::regex line("\nOut of memory \\(\\d+ megabytes used\\)\n");
        EXPECT_TRUE(std::regex_match(outcome.standard_error, line)) << outcome.standard_error;
        EXPECT_EQ(directory.files(REPORT), LINES{REPORT});
    }
}

// Each of the three kinds of query looks once for the library, at its first query. While the process loads,
// the first two kinds are asked, so a library that comes later is found by the third alone.
TEST(Output, ConfigurationComesFromTheLibraryThatWasThereAtTheFirstQuery) {
    const std::pair<LINES, const char*> cases[] = {
        {{CONFIGURED_HOST, "ask_configuration"}, "1 library 43\n"},
        {{HOST, "ask_configuration", CONFIGURATION}, "0 7 43\n"},
        {{HOST, "ask_configuration"}, "0 7 7\n"},
    };
    for (const auto& [command, answers] : cases)
        EXPECT_EQ(run_host(TEST_DIRECTORY(), {{"probe", "7"}}, command).standard_output, answers);
}

} // namespace
