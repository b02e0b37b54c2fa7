// What can keep a process from ending: each danger in a program of its own, with every feature on and with
// none, under a hard limit of time.

#include "tests/support/report_rows.h"
#include "tests/support/run_child.h"

#include <gtest/gtest.h>

namespace {

struct DANGER {
    const char* name;
    std::vector<std::string> arguments;
    int exit_status = 0;
    std::size_t reports = 1; // fileline reports when every feature is on
    const char* tag = "tvx";
    bool begins_late = false; // frees of blocks that the tracker never saw take its catch-all row below 0
};

void PrintTo(const DANGER& danger, std::ostream* stream) {
    *stream << danger.name;
}

TEST_COMMAND command_of(const DANGER& danger, const TEST_ENVIRONMENT& switches) {
    TEST_COMMAND command{danger.arguments, switches, "", 60};
    command.arguments[0] = VBX_TEST_BUILT_HANGS "/" + command.arguments[0];
    return command;
}

class Dangers : public testing::TestWithParam<DANGER> {};

TEST_P(Dangers, DontKeepATrackedProcessFromItsEnd) {
    const TEST_DIRECTORY directory;
    const TEST_OUTCOME outcome = test_run_child(command_of(GetParam(), test_all_switches()), directory);
    EXPECT_EQ(outcome.end(), "exit " + std::to_string(GetParam().exit_status)) << outcome.standard_error;
    const std::vector<std::string> reports = directory.files("mem_tbb_fileline.");
    ASSERT_EQ(reports.size(), GetParam().reports);
    for (const std::string& file : reports) {
        EXPECT_EQ(file, "mem_tbb_fileline." + std::string(GetParam().tag) + ".log");
        for (const TEST_SITE_ROW& row : test_read_fileline_report(directory / file)) {
            EXPECT_GE(row.figures.cumulative_bytes, row.figures.max_bytes) << row.function;
            EXPECT_GE(row.figures.max_bytes, row.figures.current_bytes) << row.function;
            if (!GetParam().begins_late || row.address != 0) {
                EXPECT_GE(row.figures.current_bytes, 0) << row.function;
            }
        }
    }
}

TEST_P(Dangers, DontKeepAnUntrackedProcessFromItsEnd) {
    const TEST_DIRECTORY directory;
    const TEST_OUTCOME outcome = test_run_child(command_of(GetParam(), {}), directory);
    EXPECT_EQ(outcome.end(), "exit " + std::to_string(GetParam().exit_status)) << outcome.standard_error;
    EXPECT_EQ(directory.files(""), std::vector<std::string>{});
}

const std::string NEW_CODE = VBX_TEST_BUILT_HANGS "/new_code.so";
const std::string SUITE_LIBRARY = VBX_TEST_BUILT_HANGS "/suite_library.so";

INSTANTIATE_TEST_SUITE_P(
    Linked, Dangers,
    testing::Values(DANGER{"dlopen_while_allocating", {"dlopen_while_allocating", "libtbb.so.12", NEW_CODE}},
                    DANGER{"fork_while_allocating", {"fork_while_allocating"}},
                    DANGER{"thread_end_frees", {"thread_end_frees"}},
                    DANGER{"return_with_threads", {"end_with_threads", "return"}, 9},
                    DANGER{"exit_from_thread", {"end_with_threads", "exit"}, 9},
                    DANGER{"exit_from_last_but_main", {"end_with_threads", "leave_main"}, 9},
                    DANGER{"exit_inside_callback", {"exit_inside_event", "callback"}, 9},
                    DANGER{"exit_inside_new_handler", {"exit_inside_event", "new_handler"}, 9},
                    DANGER{"memory_limit", {"memory_limit"}, 9, 1, "limited"},
                    DANGER{"late_suite_library", {"late_suite_library", SUITE_LIBRARY}, 9, 1, "tvx", true}),
    [](const testing::TestParamInfo<DANGER>& danger) { return std::string(danger.param.name); });

} // namespace
