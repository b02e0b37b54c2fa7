// What of the debug aids only a real process shows: blocks that the heap has forgotten, the log's file.
#include "tests/support/run_child.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>
#include <sstream>

namespace {

const std::string HOST = BUILT "host";
const TEST_ENVIRONMENT LOG = {{"mem_print_allocations", "on"}};

// Of large blocks the heap itself has forgotten after the first free that it ever had them.
TEST(DoubleFree, EndsTheProcessWithTheSitesOfTheBlockInFront) {
    const TEST_ENVIRONMENT check = {{"mem_check_double_free", "on"},
                                    {"TARVANE_MEM_PROFILE_PER_FILELINE", "1"}};
    const std::regex message("MEM: block 0x[0-9a-f]+ was allocated at [^\n]*make\\(unsigned long\\) "
                             "\\(.*/host.cpp:\\d+\\), first freed at [^\n]*drop\\(void\\*\\) "
                             "\\(.*/host.cpp:\\d+\\)\n"
                             "MEM: internal error: Double free detected \\([^\n]*\\)\n");
    for (const std::string size : {"10", "5000", "20000", "3000000", "90000000"})
        for (const std::string way : {"free", "realloc"}) {
            SCOPED_TRACE(size + " " + way);
            const TEST_DIRECTORY directory;
            const TEST_OUTCOME outcome = test_run_child({{HOST, "free_twice", size, way}, check}, directory);
            EXPECT_EQ(outcome.end, "signal 6");
            EXPECT_TRUE(std::regex_match(outcome.standard_error, message)) << outcome.standard_error;
        }
}

TEST(DoubleFree, IsNoneWhereACallbackKeepsBlocksOfItsOwn) {
    const TEST_DIRECTORY directory;
    const TEST_OUTCOME outcome =
        test_run_child({{HOST, "keep_events"}, {{"mem_check_double_free", "on"}}}, directory);
    EXPECT_EQ(outcome.end, "exit 9") << outcome.standard_error;
}

TEST(Log, HasWholeLinesOfAllThreadsAndIsTheProcesssOwn) {
    const TEST_DIRECTORY directory;
    for (int run = 0; run < 2; ++run) // the second empties the file
        EXPECT_EQ(test_run_child({{HOST, "log_on_threads"}, LOG + test_all_switches()}, directory).end,
                  "exit 9");
    std::istringstream lines(test_read_file(directory / "mem_allocations.log"));
    const std::regex form("ptr=0x[0-9a-f]+, requested_size =(\\d+), allocated_size=\\d+, type=(alloc|free)");
    int known = 0;
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, form)) << line;
        const int size = std::stoi(match[1]);
        known += match[2] == "alloc" && size >= 90'000 && size < 90'500;
    }
    EXPECT_EQ(known, 2000);
}

TEST(Log, LeavesTheProgramsDescriptorsAlone) {
    const TEST_DIRECTORY directory;
    EXPECT_EQ(test_run_child({{HOST, "log_and_close_all"}, LOG}, directory).end, "exit 9");
    const std::string log = test_read_file(directory / "mem_allocations.log");
    EXPECT_NE(log.find("requested_size =77,"), std::string::npos);
    EXPECT_EQ(log.find("requested_size =78,"), std::string::npos);
    EXPECT_EQ(test_read_file(directory / "own"), "");
}

TEST(Log, ThatCannotBeOpenedIsToldOfInALine) {
    const TEST_DIRECTORY directory;
    ASSERT_EQ(mkdir((directory / "mem_allocations.log").c_str(), 0700), 0);
    const TEST_OUTCOME outcome = test_run_child({{HOST, "none"}, LOG + test_all_switches()}, directory);
    EXPECT_EQ(outcome.end, "exit 9");
    EXPECT_EQ(outcome.standard_error,
              "MEM: mem_allocations.log can't be opened: Is a directory. Allocations are not logged\n");
}

} // namespace
