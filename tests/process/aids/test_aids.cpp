// The debug aids over the real allocator.
#include "tests/support/run_child.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <regex>
#include <sstream>

namespace {

const TEST_ENVIRONMENT LOG = {{"mem_print_allocations", "on"}};

TEST(Patterns, ChangeNoByteOutsideOfABlocksOwnSlot) {
    const TEST_DIRECTORY directory;
    const TEST_OUTCOME outcome = test_run_child({{AIDED, "slots"}}, directory);
    EXPECT_EQ(outcome.end, "exit 9") << outcome.standard_error;
}

// Each alone and each two together, with the tracker and without.
TEST(Aids, ComeToTheirEndWithTheProcess) {
    const TEST_ENVIRONMENT aids = test_all_debug_aids();
    for (const auto& first : aids)
        for (const auto& second : aids)
            for (const TEST_ENVIRONMENT& switches : {TEST_ENVIRONMENT(), test_all_switches()})
                for (const char* const action : {"threads", "shut_down"}) {
                    if (second < first)
                        continue;
                    SCOPED_TRACE(first.first + " " + second.first + " " + action);
                    const TEST_DIRECTORY directory;
                    const TEST_OUTCOME outcome = test_run_child(
                        {{AIDED, action}, switches + TEST_ENVIRONMENT{first, second}}, directory);
                    EXPECT_EQ(outcome.end, "exit 9");
                    EXPECT_EQ(outcome.standard_error, "");
                }
}

// Of large blocks the heap itself has forgotten after the first free that it ever had them.
TEST(DoubleFree, EndsTheProcessWithTheSitesOfTheBlockInFront) {
    for (const std::string size : {"10", "5000", "20000", "3000000", "90000000"})
        for (const std::string way : {"free", "realloc"}) {
            SCOPED_TRACE(size + " " + way);
            const TEST_ENVIRONMENT check = {{"mem_check_double_free", "on"}};
            const TEST_ENVIRONMENT sites = {{"TARVANE_MEM_PROFILE_PER_FILELINE", "1"}};
            const TEST_DIRECTORY directory;
            const TEST_OUTCOME plain = test_run_child({{AIDED, "free_twice", size, way}, check}, directory);
            EXPECT_EQ(plain.end, "signal 6");
            const std::string fault = "MEM: internal error: Double free detected \\([^\n]*\\)\n";
            EXPECT_TRUE(std::regex_match(plain.standard_error, std::regex(fault))) << plain.standard_error;
            const TEST_OUTCOME told =
                test_run_child({{AIDED, "free_twice", size, way}, check + sites}, directory);
            EXPECT_EQ(told.end, "signal 6");
            const std::regex with_sites(
                "MEM: block 0x[0-9a-f]+ was allocated at [^\n]*make\\(unsigned long\\) "
                "\\(.*/aided.cpp:\\d+\\), first freed at [^\n]*drop\\(void\\*\\) "
                "\\(.*/aided.cpp:\\d+\\)\n" +
                fault);
            EXPECT_TRUE(std::regex_match(told.standard_error, with_sites)) << told.standard_error;
        }
}

TEST(Log, HasWholeLinesOfAllThreadsAndIsTheProcesssOwn) {
    const TEST_DIRECTORY directory;
    for (int run = 0; run < 2; ++run) // the second empties the file
        EXPECT_EQ(test_run_child({{AIDED, "threads"}, LOG + test_all_switches()}, directory).end, "exit 9");
    std::istringstream lines(test_read_file(directory / "mem_allocations.log"));
    const std::regex form("ptr=0x[0-9a-f]+, requested_size =(\\d+), allocated_size=\\d+, type=(alloc|free)");
    int known = 0;
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        ASSERT_TRUE(std::regex_match(line, match, form)) << line;
        known += match[2] == "alloc" && match[1].length() == 5 && match[1].str() >= "90000" &&
                 match[1].str() < "90500";
    }
    EXPECT_EQ(known, 2000);
}

TEST(Log, LeavesTheProgramsDescriptorsAlone) {
    const TEST_DIRECTORY directory;
    EXPECT_EQ(test_run_child({{AIDED, "close_all"}, LOG}, directory).end, "exit 9");
    const std::string log = test_read_file(directory / "mem_allocations.log");
    EXPECT_NE(log.find("requested_size =77,"), std::string::npos);
    EXPECT_EQ(log.find("requested_size =78,"), std::string::npos);
    EXPECT_EQ(test_read_file(directory / "own"), "");
}

TEST(Log, ThatCannotBeOpenedIsToldOfInALine) {
    const TEST_DIRECTORY directory;
    ASSERT_EQ(mkdir((directory / "mem_allocations.log").c_str(), 0700), 0);
    const TEST_OUTCOME outcome = test_run_child({{AIDED, "none"}, LOG + test_all_switches()}, directory);
    EXPECT_EQ(outcome.end, "exit 9");
    EXPECT_EQ(outcome.standard_error,
              "MEM: mem_allocations.log can't be opened: Is a directory. Allocations are not logged\n");
}

} // namespace
