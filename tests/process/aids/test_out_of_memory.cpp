// The end of a process without memory, under a real limit: one message or one run of the handler, status 1,
// the reports, and never a hang.
#include "tests/support/report_rows.h"
#include "tests/support/run_child.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>

namespace {

struct EXHAUSTION {
    std::string name, threads, way, size, handler = "none";
    bool has_reports = true;
    friend void PrintTo(const EXHAUSTION& one, std::ostream* stream) { *stream << one.name; }
};

class OutOfMemory : public testing::TestWithParam<EXHAUSTION> {};

TEST_P(OutOfMemory, EndsOnceWithStatusOneAndTheReports) {
    const EXHAUSTION& one = GetParam();
    const std::vector<std::string> command = {BUILT "exhausted", one.threads, one.way, one.size, one.handler};
    const bool has_handler = one.handler != "none" && one.handler != "unset";
    for (const bool is_tracked : {false, true}) {
        const TEST_DIRECTORY directory;
        TEST_ENVIRONMENT environment = is_tracked ? test_all_switches() : TEST_ENVIRONMENT();
        environment["mem_free_pattern"] = is_tracked ? "7" : "";
        if (one.way == "bins" || one.way == "label") // without tracking there is nothing to keep them for
            environment["TARVANE_MEM_PROFILE_BIN_TAG_PLOT"] = "1";
        if (one.way == "locked") // the figure of the message then comes with a message of its own
            environment["mem_report_peak_virtual_memory_from_os"] = "1";
        const TEST_OUTCOME outcome = test_run_child({command, environment}, directory);
        EXPECT_EQ(outcome.end, "exit 1") << outcome.standard_error;
        static const std::regex standard("^\nOut of memory \\((\\d+) megabytes used\\)\n$");
        std::smatch match;
        const bool has_message = std::regex_search(outcome.standard_error, match, standard);
        EXPECT_EQ(has_message, !has_handler) << outcome.standard_error;
        if (has_message) {
            const bool is_at_once = std::stoull(one.size) > 200'000'000;
            EXPECT_GT(std::stoi(match[1]), is_at_once ? 5 : 60);
            EXPECT_LT(std::stoi(match[1]), is_at_once ? 60 : 210);
        }
        const std::string& output = outcome.standard_output;
        EXPECT_NE(output.find("in the buffer\n"), std::string::npos);
        EXPECT_EQ(output.find("handler\n") != std::string::npos, has_handler);
        EXPECT_EQ(output.find("handler\n"), output.rfind("handler\n"));
        if (is_tracked && one.has_reports) {
            const auto rows = test_read_report(directory / "mem_tbb_fileline.tvx.log", "Fileline");
            const auto holds_memory = [](const TEST_ROW& row) {
                return row.function.find("exhaust()") != std::string::npos &&
                       row.figures.at("Current bytes") > 0;
            };
            EXPECT_TRUE(std::ranges::any_of(rows, holds_memory));
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Linked, OutOfMemory,
    testing::Values(
        EXHAUSTION{"malloc", "0", "malloc", "20000"},
        EXHAUSTION{"huge", "0", "malloc", "9000000000", "none", false},
        EXHAUSTION{"operator_new", "0", "new", "2000"}, EXHAUSTION{"small_blocks", "0", "malloc", "100"},
        EXHAUSTION{"bins", "0", "bins", "20000", "none", false},
        EXHAUSTION{"label", "0", "label", "150000000", "none", false},
        EXHAUSTION{"at_end", "0", "at_end", "20000"}, EXHAUSTION{"threads", "6", "malloc", "2000"},
        EXHAUSTION{"threads_new", "6", "new", "300000"}, EXHAUSTION{"locked_output", "1", "locked", "20000"},
        EXHAUSTION{"chunks", "0", "chunk", "100"}, EXHAUSTION{"separate_blocks", "0", "chunk", "40000"},
        // With the alignment more than a number holds.
        EXHAUSTION{"overflow", "0", "chunk", "18446744073709551610", "none", false},
        EXHAUSTION{"thread_alone", "1", "malloc", "2000", "unset"},
        EXHAUSTION{"handler", "0", "malloc", "2000", "returns"},
        EXHAUSTION{"reserve", "0", "malloc", "5000", "reserve"},
        EXHAUSTION{"handler_exhausts", "0", "new", "2000", "exhausts"},
        EXHAUSTION{"handler_forked", "1", "fork", "2000", "waits"},
        EXHAUSTION{"handler_threads", "6", "malloc", "20000", "returns"}),
    [](const auto& one) { return one.param.name; });

// A preloaded program that survives without the library survives with it, threads or not.
TEST(Preloaded, ProgramStillCatchesItsMemoryError) {
    const std::string script = R"(
import resource, threading
def fail(kept):
    try:
        while True:
            kept.append(bytearray(3000000))
    except MemoryError:
        return len(kept) > 10
threads = [threading.Thread(target=lambda: None) for _ in range(4)]
[thread.start() for thread in threads]
[thread.join() for thread in threads]
resource.setrlimit(resource.RLIMIT_AS, (600 << 20, 600 << 20))
results = [fail([])]
thread = threading.Thread(target=lambda: results.append(fail([])))
thread.start()
thread.join()
print(results, fail([]))
raise SystemExit(5)
)";
    for (const TEST_ENVIRONMENT& switches : {TEST_ENVIRONMENT(), test_all_switches()}) {
        const TEST_DIRECTORY directory;
        const TEST_OUTCOME outcome =
            test_run_child({{"/usr/bin/python3"}, test_preload() + switches, script}, directory);
        if (outcome.end == "exit 127")
            GTEST_SKIP() << "no python";
        EXPECT_EQ(outcome.end, "exit 5") << outcome.standard_error;
        EXPECT_EQ(outcome.standard_output, "[True, True] True\n");
        EXPECT_EQ(outcome.standard_error.find("Out of memory"), std::string::npos);
    }
}

} // namespace
