// Whatever is given to the library from outside, its host lives on and ends as it would have, with one
// exception that is meant: a numeric key that holds no number.

#include "tests/support/report_rows.h"
#include "tests/support/run_child.h"

#include <gtest/gtest.h>

namespace {

std::vector<std::string> host(const std::vector<std::string>& arguments = {}) {
    std::vector<std::string> command = {VBX_TEST_HOST};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

const TEST_ENVIRONMENT PER_FILELINE = {{"TARVANE_MEM_PROFILE_PER_FILELINE", "1"}};
const std::string REPORT = "mem_tbb_fileline.tvx.log";

// Variables and keys have rules of their own for what is "on".
TEST(BadInput, SwitchesAreOnOrOff) {
    const struct {
        const char* name;
        std::string value;
        const char* mask;
    } cases[] = {
        {"TARVANE_MEM_PROFILE_PER_FILELINE", "1", "mask 8\n"},
        {"TARVANE_MEM_PROFILE_PER_FILELINE", "0", "mask 0\n"},
        {"TARVANE_MEM_PROFILE_PER_FILELINE", "", "mask 0\n"},
        {"TARVANE_MEM_PROFILE_PER_FILELINE", "off", "mask 8\n"},
        {"TARVANE_MEM_PROFILE_PER_FILELINE", "-1", "mask 8\n"},
        {"TARVANE_MEM_PROFILE_PER_FILELINE", "00", "mask 8\n"},
        {"TARVANE_MEM_PROFILE_PER_FILELINE", std::string(5000, '9'), "mask 8\n"},
        {"TARVANE_MEM_PROFILE_ALL", "1", "mask 95\n"},
        {"TARVANE_MEM_CHECK_LEAKS_FAST", "1", "mask 32\n"},
        {"mem_profile_per_fileline", "on", "mask 8\n"},
        {"mem_profile_per_fileline", "ON", "mask 8\n"},
        {"mem_profile_per_fileline", "1", "mask 8\n"},
        {"mem_profile_per_fileline", "2", "mask 0\n"},
        {"mem_profile_per_fileline", "", "mask 0\n"},
        {"mem_profile_per_fileline", "yes", "mask 0\n"},
        {"mem_only_profile_single_executable", "another", "mask 0\n"},
    };
    for (const auto& [name, value, mask] : cases) {
        SCOPED_TRACE(std::string(name) + "=" + value.substr(0, 20));
        const TEST_DIRECTORY directory;
        const TEST_OUTCOME outcome = test_run_child({host({"mask"}), {{name, value}}, ""}, directory);
        EXPECT_EQ(outcome.end(), "exit 9");
        EXPECT_NE(outcome.standard_output.find(mask), std::string::npos) << outcome.standard_output;
    }
}

// How the host ends, and what the library has to say about the value.
TEST(BadInput, NumbersAreReplacedOrEndTheLoad) {
    const std::string threshold = "TARVANE_MEM_PROFILE_FILELINE_PEAK_SNAPSHOT_THRESHOLD";
    const std::string period = "TARVANE_MEM_PROFILE_LIBRARY_SNAPSHOT_PERIOD";
    const std::string period_key = "mem_profile_library_snapshot_period";
    const std::string threshold_key = "mem_profile_fileline_peak_snapshot_threshold";
    const struct {
        std::string name, value, end, message;
    } cases[] = {
        {threshold, "0", "exit 9", ""},
        {threshold, "text", "exit 9", ""},
        {threshold, "-5", "exit 9", "MEM: " + threshold},
        {threshold, "99999999999999999999999", "exit 9", "MEM: " + threshold},
        {threshold, "1", "exit 9", ""},
        {period, "", "exit 9", ""},
        {period, "1", "exit 9", ""},
        {period, "99999999999999999999999", "exit 9", ""},
        {period_key, "0", "exit 9", "MEM: " + period_key},
        {period_key, "12 apples", "exit 9", ""},
        {period_key, "apples", "signal 6", "invalid_argument"},
        {period_key, "99999999999999999999999", "signal 6", "out_of_range"},
        {threshold_key, "-1", "exit 9", "MEM: " + threshold_key},
        {threshold_key, "x", "signal 6", "invalid_argument"},
    };
    for (const auto& [name, value, end, message] : cases) {
        SCOPED_TRACE(name + "=" + value);
        const TEST_DIRECTORY directory;
        const TEST_OUTCOME outcome =
            test_run_child({host(), PER_FILELINE + TEST_ENVIRONMENT{{name, value}}, ""}, directory);
        EXPECT_EQ(outcome.end(), end);
        if (message.empty())
            EXPECT_EQ(outcome.standard_error, "");
        else
            EXPECT_NE(outcome.standard_error.find(message), std::string::npos) << outcome.standard_error;
    }
}

// The row of the host's one leak: no host's locale and no closed descriptor shows in it.
void expect_leak_row(const TEST_DIRECTORY& directory, const std::string& report) {
    int rows = 0;
    for (const TEST_SITE_ROW& row : test_read_fileline_report(directory / report))
        if (row.figures.requested_bytes == 1'234'567) {
            ++rows;
            EXPECT_EQ(row.figures.current_blocks, 1);
        }
    EXPECT_EQ(rows, 1);
}

TEST(BadInput, HostsThatChangeTheirSurroundingsGetTheirReports) {
    for (const std::string action : {"", "close_output", "group_digits"}) {
        SCOPED_TRACE(action);
        const TEST_DIRECTORY directory;
        const TEST_OUTCOME outcome = test_run_child({host({action}), PER_FILELINE, ""}, directory);
        EXPECT_EQ(outcome.end(), "exit 9") << outcome.standard_error;
        expect_leak_row(directory, REPORT);
    }
}

TEST(BadInput, DirectoryThatTakesNoFileIsPassedOver) {
    const TEST_DIRECTORY directory;
    const TEST_OUTCOME outcome =
        test_run_child({host({"remove_directory"}), test_all_switches(), ""}, directory);
    EXPECT_EQ(outcome.end(), "exit 9");
    EXPECT_EQ(outcome.standard_error, "");
}

TEST(BadInput, SymbolFileThatIsNotTheLoadedOneIsSurvived) {
    for (const char* const kept_bytes : {"0", "30", "64", "1000", "9000", "14000", "100000000"}) {
        SCOPED_TRACE(kept_bytes);
        const TEST_DIRECTORY directory;
        const TEST_OUTCOME outcome = test_run_child(
            {host({"replace_file", VBX_TEST_NEW_CODE, kept_bytes}), PER_FILELINE, ""}, directory);
        EXPECT_EQ(outcome.end(), "exit 9") << outcome.standard_error;
        expect_leak_row(directory, REPORT);
    }
}

TEST(BadInput, NamesOfReportsAndModulesAreTakenAsTheyAre) {
    const TEST_DIRECTORY directory;
    EXPECT_EQ(test_run_child({host({"tag", "a b.%e"}), PER_FILELINE, ""}, directory).end(), "exit 9");
    expect_leak_row(directory, "mem_tbb_fileline.a b.%e.log");
    const TEST_OUTCOME outcome = test_run_child(
        {host({"tag", std::string(300, 't')}),
         PER_FILELINE + TEST_ENVIRONMENT{{"HOST_LONG_NAME", "1"}, {"MEM_PRINT_LIB_LOAD", "1"}}, ""},
        directory);
    EXPECT_EQ(outcome.end(), "exit 9") << "no file can have such a name";
    EXPECT_NE(outcome.standard_output.find("Loading: " + std::string(10'000, 'n') + "\n"), std::string::npos);
}

} // namespace
