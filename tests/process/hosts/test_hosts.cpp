// Whatever is given to the library from outside, its host lives on and ends as it would have, with one
// exception that is meant: a numeric key that holds no number. And what the library writes beside the
// tracking reports.
#include "tests/support/report_rows.h"
#include "tests/support/run_child.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <filesystem>
#include <regex>

namespace {

using LINES = std::vector<std::string>;

const std::string HOST = BUILT "host";
const std::string CONFIGURATION = BUILT "libvbx_cfg_ini.so";

const TEST_ENVIRONMENT PER_FILELINE = {{"TARVANE_MEM_PROFILE_PER_FILELINE", "1"}};
const std::string REPORT = "mem_tbb_fileline.tvx.log";

TEST_OUTCOME run_host(const TEST_DIRECTORY& directory, const TEST_ENVIRONMENT& environment,
                      LINES command = {"none"}) {
    if (!command[0].starts_with('/'))
        command.insert(command.begin(), HOST);
    const TEST_OUTCOME outcome = test_run_child({command, environment}, directory);
    EXPECT_EQ(outcome.end, "exit 9") << outcome.standard_error;
    return outcome;
}

TEST(BadInput, NumericKeyWithoutANumberEndsTheLoad) {
    const TEST_DIRECTORY directory;
    const TEST_OUTCOME outcome =
        test_run_child({{HOST, "none"}, {{"mem_profile_library_snapshot_period", "apples"}}}, directory);
    EXPECT_EQ(outcome.end, "signal 6");
    EXPECT_NE(outcome.standard_error.find("invalid_argument"), std::string::npos);
}

// No host's locale, closed descriptor or odd name shows in the row of its one leak.
TEST(BadInput, HostsThatChangeTheirSurroundingsGetTheirReports) {
    for (LINES action : {LINES{"none"}, LINES{"close_output"}, LINES{"group_digits"}, LINES{"tag", "a b.%e"},
                         LINES{"remove_program"}}) {
        SCOPED_TRACE(action[0]);
        const TEST_DIRECTORY directory;
        if (action[0] == "remove_program") {
            std::filesystem::copy_file(HOST, directory / "copy");
            action.insert(action.begin(), directory / "copy");
        }
        run_host(directory, PER_FILELINE, action);
        const auto rows = test_read_report(
            directory / (action[0] == "tag" ? "mem_tbb_fileline.a b.%e.log" : REPORT), "Fileline");
        const auto is_the_leak = [](const TEST_ROW& row) {
            return row.figures.at("Cumulative requested bytes") == 1'234'567 &&
                   row.figures.at("Current blocks") == 1;
        };
        EXPECT_EQ(std::ranges::count_if(rows, is_the_leak), 1);
    }
}

TEST(BadInput, FilesAndStreamsThatCannotBeWrittenArePassedOver) {
    const TEST_DIRECTORY removed;
    EXPECT_EQ(run_host(removed, test_all_switches(), {"remove_directory"}).standard_error, "");
    const TEST_DIRECTORY small; // the kernel answers longer files with a signal
    EXPECT_EQ(run_host(small, test_all_switches(), {"limit_files"}).standard_error, "");
    EXPECT_EQ(test_read_file(small / REPORT).size(), 500U);
    const TEST_DIRECTORY piped; // nobody reads the pipe
    ASSERT_EQ(mkfifo((piped / REPORT).c_str(), 0600), 0);
    run_host(piped, PER_FILELINE);
    EXPECT_NE(test_read_file(piped / "mem_tbb_subsystem.tvx.log"), "");
    const TEST_DIRECTORY leaking;
    ASSERT_EQ(mkfifo((leaking / "mem_tbb_fast_leak_warning.log").c_str(), 0600), 0);
    run_host(leaking, {{"TARVANE_MEM_CHECK_LEAKS_FAST", "1"}});
    run_host(TEST_DIRECTORY(), {{"debug_msg", "on"}, {"MEM_PRINT_LIB_LOAD", "1"}}, {"lock_output"});
    const TEST_DIRECTORY directory; // no file can have such a name
    const TEST_ENVIRONMENT long_name = {{"HOST_LONG_NAME", "1"}, {"MEM_PRINT_LIB_LOAD", "1"}};
    const TEST_OUTCOME outcome =
        run_host(directory, PER_FILELINE + long_name, {"tag", std::string(300, 't')});
    EXPECT_NE(outcome.standard_output.find("Loading: " + std::string(10'000, 'n') + "\n"), std::string::npos);
    const TEST_OUTCOME preloaded = run_host(directory, test_preload() + long_name);
    EXPECT_NE(preloaded.standard_error.find("nnn\nUnloading: MEM\n"), std::string::npos);
}

// Load lines frame the process and the allocator lines end it; what can come in any number is left out.
TEST(Output, LoadLinesGoToStandardOutputAndPreloadedOnesToStandardError) {
    const std::regex tracking("[^\n]*Memory tracking:[^\n]*\n");
    const TEST_ENVIRONMENT switches = test_all_switches() + TEST_ENVIRONMENT{{"MEM_PRINT_LIB_LOAD", "0"}};
    const TEST_COMMAND linked = {{HOST, "none"}, switches};
    const TEST_COMMAND preloaded = {{"/bin/true"},
                                    test_preload() + switches +
                                        TEST_ENVIRONMENT{{"TARVANE_MEM_PRELOAD_TAG", "%%a/%e-%p"}}};
    for (const bool is_host : {true, false}) {
        const TEST_DIRECTORY directory;
        const TEST_OUTCOME outcome = test_run_child(is_host ? linked : preloaded, directory);
        const std::string& written = is_host ? outcome.standard_output : outcome.standard_error;
        EXPECT_EQ(is_host ? outcome.standard_error : outcome.standard_output, "");
        const std::string loads =
            is_host ? "Loading: MEM\nLoading: host\nUnloading: host\nUnloading: MEM\n"
                    : "Loading: MEM\nLoading: preload\nUnloading: MEM\nUnloading: preload\n";
        EXPECT_EQ(std::regex_replace(written, tracking, ""),
                  loads + "Debug: MEM: Native allocator:          'TBBmalloc'\n"
                          "Debug: MEM: Allocator used by Tarvane: 'TBBmalloc'\n");
        const LINES reports = directory.files("mem_tbb_fileline.");
        ASSERT_EQ(reports.size(), 1U);
        const std::regex file("mem_tbb_fileline\\.(tvx|%a_true-\\d+)\\.log");
        EXPECT_TRUE(std::regex_match(reports[0], file)) << reports[0];
    }
}

// One that is never destroyed keeps the reports away, and nothing else.
TEST(Output, AllocatorLinesComeWithoutTheLastInitialiserToo) {
    const TEST_DIRECTORY directory;
    const TEST_OUTCOME outcome =
        run_host(directory, PER_FILELINE + TEST_ENVIRONMENT{{"debug_msg", "on"}}, {"leak_initialiser"});
    EXPECT_NE(outcome.standard_output.find("Debug: MEM: Allocator used by"), std::string::npos);
    EXPECT_EQ(directory.files("mem_tbb_").size(), 0U);
}

// Each start of a thread sees how large the address space is: with a descriptor that is kept, so that it
// takes none which another thread may be waiting for.
TEST(Threads, StartWithoutAFreeDescriptor) {
    EXPECT_EQ(run_host(TEST_DIRECTORY(), {}, {"start_without_descriptors"}).standard_output, "seen\n");
}

TEST(Output, CodeModulesAreListedByTheProcessThatRegisteredThem) {
    std::string expected;
    for (const LINES& pair :
         {LINES{"", ""}, {"parser", "x"}, {"parser", "y"}, {"router", "small"}, {"\xE4", "z"}})
        expected +=
            "Debug: PGO: The code module " + pair[0] + " was last compiled using PGO for:" + pair[1] + "\n";
    const LINES action = {"register_code_modules"};
    EXPECT_EQ(run_host(TEST_DIRECTORY(), {}, action).standard_output, "");
    const std::string written = run_host(TEST_DIRECTORY(), {{"debug_msg", "on"}}, action).standard_output;
    EXPECT_EQ(written.substr(0, written.find("Debug: MEM: ")), expected) << written;
}

// Each of the three kinds of query looks once for the library, at its first query. While the process loads,
// the first two kinds are asked, so a library that comes later is found by the third alone.
TEST(Output, ConfigurationComesFromTheLibraryThatWasThereAtTheFirstQuery) {
    const struct {
        std::string preloaded;
        LINES command;
        const char* answers;
    } cases[] = {
        {CONFIGURATION, {"ask_configuration"}, "1 library 43\n"},
        {"", {"ask_configuration", CONFIGURATION}, "0 7 43\n"},
        {"", {"ask_configuration"}, "0 7 7\n"},
    };
    for (const auto& [preloaded, command, answers] : cases)
        EXPECT_EQ(
            run_host(TEST_DIRECTORY(), {{"probe", "7"}, {"LD_PRELOAD", preloaded}}, command).standard_output,
            answers);
}

} // namespace
