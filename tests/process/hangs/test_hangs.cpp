// What can keep a process from ending: each danger in a program of its own, with every feature on and with
// none, with every debug aid and with none, under a hard limit of time.
#include "tests/support/report_rows.h"
#include "tests/support/run_child.h"

#include <gtest/gtest.h>

namespace {

struct DANGER {
    std::string name;
    std::vector<std::string> arguments;
    friend void PrintTo(const DANGER& one, std::ostream* stream) { *stream << one.name; }
};

class Dangers : public testing::TestWithParam<DANGER> {};

void expect_ends(const DANGER& danger, const TEST_ENVIRONMENT& aids) {
    const TEST_DIRECTORY untracked;
    const TEST_OUTCOME outcome = test_run_child({danger.arguments, aids}, untracked);
    EXPECT_EQ(outcome.end, "exit 9") << outcome.standard_error;
    EXPECT_EQ(untracked.files("").size(), aids.empty() ? 0U : 1U); // the allocation log

    const TEST_DIRECTORY tracked;
    const TEST_OUTCOME other = test_run_child({danger.arguments, test_all_switches() + aids}, tracked);
    EXPECT_EQ(other.end, "exit 9") << other.standard_error;
    const std::string report = "mem_tbb_fileline.tvx.log";
    ASSERT_EQ(tracked.files("mem_tbb_fileline."), std::vector<std::string>{report});
    // Frees of blocks that a late tracker never saw take its catch-all row below 0.
    const bool begins_late = danger.name == "late_suite_library";
    for (const TEST_ROW& row : test_read_report(tracked / report, "Fileline")) {
        EXPECT_GE(row.figures.at("Cumulative bytes"), row.figures.at("Max bytes")) << row.function;
        EXPECT_GE(row.figures.at("Max bytes"), row.figures.at("Current bytes")) << row.function;
        EXPECT_TRUE(row.figures.at("Current bytes") >= 0 || (begins_late && row.name == "OTHER"))
            << row.function;
    }
}

TEST_P(Dangers, DontKeepProcessesFromTheirEnds) {
    expect_ends(GetParam(), {});
}

TEST_P(Dangers, DontKeepProcessesWithEveryDebugAidFromTheirEnds) {
    expect_ends(GetParam(), test_all_debug_aids());
}

// The locks that the reports need are held for good, so there may be none.
struct HELD_LOCK {
    std::string danger;
    int times = 1;
    std::string warning = {};
    friend void PrintTo(const HELD_LOCK& one, std::ostream* stream) { *stream << one.danger; }
};

class HeldLocks : public testing::TestWithParam<HELD_LOCK> {};

TEST_P(HeldLocks, DontKeepProcessesFromTheirEnds) {
    for (int time = 0; time < 2 * GetParam().times; ++time) {
        const TEST_DIRECTORY folder;
        const TEST_ENVIRONMENT environment =
            time % 2 == 0 ? TEST_ENVIRONMENT() : test_all_switches() + test_all_debug_aids();
        const TEST_OUTCOME outcome =
            test_run_child({{BUILT "dangers", GetParam().danger}, environment}, folder);
        EXPECT_EQ(outcome.end, "exit 9") << outcome.standard_error;
        EXPECT_EQ(outcome.standard_error, time % 2 == 0 ? "" : GetParam().warning);
    }
}
INSTANTIATE_TEST_SUITE_P(
    Linked, HeldLocks,
    testing::Values(HELD_LOCK{"exit_inside_query", 5}, HELD_LOCK{"exit_inside_report"},
                    HELD_LOCK{"end_with_stuck_report", 1,
                              "MEM: no reports now: an operation on another thread does not end\n"}),
    [](const auto& one) { return one.param.danger; });

INSTANTIATE_TEST_SUITE_P(
    Linked, Dangers,
    testing::Values(DANGER{"load", {BUILT "dangers", "load", "libtbb.so.12", BUILT "new_code.so"}},
                    DANGER{"fork", {BUILT "dangers", "fork"}},
                    DANGER{"end_threads", {BUILT "dangers", "end_threads"}},
                    DANGER{"return_with_threads", {BUILT "dangers", "end_with_threads", "return"}},
                    DANGER{"return_with_callbacks", {BUILT "dangers", "end_with_threads", "with_callbacks"}},
                    DANGER{"exit_from_thread", {BUILT "dangers", "end_with_threads", "exit"}},
                    DANGER{"exit_from_last_but_main", {BUILT "dangers", "end_with_threads", "leave_main"}},
                    DANGER{"exit_inside_callback", {BUILT "dangers", "exit_inside_event", "callback"}},
                    DANGER{"exit_inside_new_handler", {BUILT "dangers", "exit_inside_event", "new_handler"}},
                    DANGER{"slow_report", {BUILT "dangers", "end_with_slow_report"}},
                    DANGER{"late_suite_library", {BUILT "late_suite_library", BUILT "suite_library.so"}}),
    [](const auto& danger) { return danger.param.name; });

} // namespace
