// What can keep a process from ending: each danger in a program of its own, with every feature on and with
// none, with every debug aid and with none, under a hard limit of time.
#include "tests/support/report_rows.h"
#include "tests/support/run_child.h"

#include <gtest/gtest.h>

namespace {

struct DANGER {
    std::string name;
    std::vector<std::string> arguments;
    // The locks that the reports need may be held for good: then there is a warning, or nothing at all.
    bool has_reports = true;
    std::string warning = {};
    int times = 1;
    friend void PrintTo(const DANGER& one, std::ostream* stream) { *stream << one.name; }
};

class Dangers : public testing::TestWithParam<DANGER> {};

void expect_sound_report(const TEST_DIRECTORY& directory) {
    const std::string report = "mem_tbb_fileline.tvx.log";
    ASSERT_EQ(directory.files("mem_tbb_fileline."), std::vector<std::string>{report});
    // Frees of blocks that a late tracker never saw take its catch-all row below 0.
    const bool begins_late = Dangers::GetParam().name == "late_suite_library";
    for (const TEST_ROW& row : test_read_report(directory / report, "Fileline")) {
        EXPECT_GE(row.figures.at("Cumulative bytes"), row.figures.at("Max bytes")) << row.function;
        EXPECT_GE(row.figures.at("Max bytes"), row.figures.at("Current bytes")) << row.function;
        EXPECT_TRUE(row.figures.at("Current bytes") >= 0 || (begins_late && row.name == "OTHER"))
            << row.function;
    }
}

TEST_P(Dangers, DontKeepProcessesFromTheirEnds) {
    for (int time = 0; time < GetParam().times; ++time)
        for (const TEST_ENVIRONMENT& aids : {TEST_ENVIRONMENT(), test_all_debug_aids()})
            for (const TEST_ENVIRONMENT& switches : {TEST_ENVIRONMENT(), test_all_switches()}) {
                SCOPED_TRACE(testing::Message()
                             << aids.size() << " debug aids, " << switches.size() << " switches");
                const TEST_DIRECTORY directory;
                const TEST_OUTCOME outcome =
                    test_run_child({GetParam().arguments, switches + aids}, directory);
                EXPECT_EQ(outcome.end, "exit 9") << outcome.standard_error;
                if (switches.empty()) {
                    EXPECT_EQ(directory.files("").size(), aids.empty() ? 0U : 1U); // the allocation log
                }
                if (!GetParam().has_reports) {
                    EXPECT_EQ(outcome.standard_error, switches.empty() ? "" : GetParam().warning);
                } else if (!switches.empty()) {
                    expect_sound_report(directory);
                }
            }
}

const std::string PROGRAM = BUILT "dangers";

INSTANTIATE_TEST_SUITE_P(
    Linked, Dangers,
    testing::Values(DANGER{"load", {PROGRAM, "load", "libtbb.so.12", BUILT "libnew_code.so"}},
                    DANGER{"fork", {PROGRAM, "fork"}}, DANGER{"end_threads", {PROGRAM, "end_threads"}},
                    DANGER{"return_with_threads", {PROGRAM, "end_with_threads", "return"}},
                    DANGER{"return_with_callbacks", {PROGRAM, "end_with_threads", "with_callbacks"}},
                    DANGER{"exit_from_thread", {PROGRAM, "end_with_threads", "exit"}},
                    DANGER{"exit_from_last_but_main", {PROGRAM, "end_with_threads", "leave_main"}},
                    DANGER{"exit_inside_callback", {PROGRAM, "exit_inside_event", "callback"}},
                    DANGER{"exit_inside_new_handler", {PROGRAM, "exit_inside_event", "new_handler"}},
                    // The signal meets the locks of a query in every other run.
                    DANGER{"exit_inside_query", {PROGRAM, "exit_inside_query"}, false, "", 3},
                    DANGER{"exit_inside_report", {PROGRAM, "exit_inside_report"}, false},
                    DANGER{"stuck_report",
                           {PROGRAM, "end_while_reporting", "for_good"},
                           false,
                           "MEM: no reports now: an operation on another thread does not end\n"},
                    DANGER{"slow_report", {PROGRAM, "end_while_reporting", "slow"}},
                    DANGER{"late_suite_library", {BUILT "late_suite_library", BUILT "libsuite_library.so"}}),
    [](const auto& danger) { return danger.param.name; });

} // namespace
