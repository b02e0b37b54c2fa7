// Unmodified programs behave under the preloaded library, with every feature on, as they do without, and the
// reports agree with what an independent checker has seen of the same events. And the unwinder sees the
// frames that libgcc sees, all of them, at every allocation.

#include "tests/support/report_rows.h"
#include "tests/support/run_child.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <sstream>

namespace {

struct PROGRAM {
    std::string name;
    std::vector<std::string> arguments;
    std::string input = {};
    std::string end = "exit 0";
    std::string result = "none";     // a file it leaves, compared byte for byte
    std::size_t processes = 1;       // that must at least have given a verdict
    bool has_foreign_stacks = false; // whose captures are libgcc's, so that comparing says nothing
    friend void PrintTo(const PROGRAM& one, std::ostream* stream) { *stream << one.name; }
};

// Without the lines that the library adds.
std::string without_our_lines(const std::string& text) {
    static const std::regex ours("^(Debug: )?MEM: [^\n]*\n", std::regex::ECMAScript | std::regex::multiline);
    return std::regex_replace(text, ours, "");
}

void expect_sound_process(const TEST_DIRECTORY& verdicts, const TEST_DIRECTORY& reports,
                          const std::string& process) {
    SCOPED_TRACE(process);
    long long allocations = 0, frees = 0, live_bytes = 0, senseless_events = 1;
    std::istringstream(test_read_file(verdicts / ("verdict." + process))) >> allocations >> frees >>
        live_bytes >> senseless_events;
    EXPECT_EQ(senseless_events, 0);
    EXPECT_GT(allocations, 0);

    const auto before = test_sum(test_read_report(verdicts / ("at_attach." + process), "Fileline"));
    const auto rows = test_read_report(reports / ("mem_tbb_fileline." + process + ".log"), "Fileline");
    const TEST_FIGURES at_end = test_sum(rows);
    EXPECT_EQ(at_end.at("Cumulative blocks") - before.at("Cumulative blocks"), allocations);
    EXPECT_EQ(at_end.at("Current bytes") - before.at("Current bytes"), live_bytes);
    EXPECT_EQ(at_end.at("Current blocks") - before.at("Current blocks"), allocations - frees);
    const auto other = std::ranges::find(rows, "OTHER", &TEST_ROW::name);
    ASSERT_NE(other, rows.end());
    EXPECT_GE(std::min(other->figures.at("Current bytes"), other->figures.at("Current blocks")), 0);
    // The subsystems are the same figures, added up otherwise.
    const TEST_FIGURES subsystems =
        test_sum(test_read_report(reports / ("mem_tbb_subsystem." + process + ".log"), "Subsystem"));
    EXPECT_EQ(subsystems.at("Cumulative bytes"), at_end.at("Cumulative bytes"));
    EXPECT_EQ(subsystems.at("Current bytes"), at_end.at("Current bytes"));
}

// Each runs alone first, and then with what is preloaded; nothing that can be seen of it may differ.
class Programs : public testing::TestWithParam<PROGRAM> {
  protected:
    void SetUp() override {
        alone = run({}, alone_directory);
        if (alone.end == "exit 127")
            GTEST_SKIP() << GetParam().arguments[0] << " is not installed";
        ASSERT_EQ(alone.end, GetParam().end) << alone.standard_error;
    }
    static TEST_OUTCOME run(const TEST_ENVIRONMENT& environment, const TEST_DIRECTORY& directory) {
        return test_run_child({GetParam().arguments, environment, GetParam().input}, directory);
    }
    void expect_same_behaviour(const TEST_ENVIRONMENT& environment) const {
        const TEST_OUTCOME tracked = run(environment, directory);
        const std::string result = GetParam().result;
        EXPECT_EQ(tracked.end, alone.end);
        EXPECT_EQ(tracked.standard_output, alone.standard_output);
        EXPECT_EQ(without_our_lines(tracked.standard_error), alone.standard_error);
        EXPECT_EQ(test_read_file(directory / result), test_read_file(alone_directory / result));
    }

    TEST_DIRECTORY alone_directory, directory;
    TEST_OUTCOME alone;
};

TEST_P(Programs, BehaveAsWithoutUsAndAreCountedExactly) {
    const TEST_DIRECTORY verdicts;
    expect_same_behaviour(test_preload(EVENT_CHECKER) + test_all_switches() +
                          TEST_ENVIRONMENT{{"VBX_TEST_VERDICTS", verdicts.path()}});
    const std::vector<std::string> given = verdicts.files("verdict.");
    EXPECT_GE(given.size(), GetParam().processes);
    for (const std::string& file : given)
        expect_sound_process(verdicts, directory, file.substr(file.find('.') + 1));
}

TEST_P(Programs, BehaveAsWithoutUsWithEveryDebugAid) {
    expect_same_behaviour(test_preload() + test_all_switches() + test_all_debug_aids());
    EXPECT_NE(test_read_file(directory / "mem_allocations.log"), "");
}

using Unwinder = Programs;

TEST_P(Unwinder, SeesWhatLibgccSees) {
    const TEST_OUTCOME compared = run({{"LD_PRELOAD", UNWIND_CHECKER}}, directory);
    EXPECT_EQ(compared.end, alone.end) << compared.standard_error;
    int compared_processes = 0;
    const std::regex totals("([0-9]+) captures, ([0-9]+) by libgcc");
    for (std::sregex_iterator line(compared.standard_error.begin(), compared.standard_error.end(), totals),
         end;
         line != end; ++line) {
        const int captures = std::stoi((*line)[1]);
        if (captures >= 1000 && !GetParam().has_foreign_stacks) {
            EXPECT_LT(std::stoi((*line)[2]), 100) << line->str();
        }
        compared_processes += captures >= 1000;
    }
    EXPECT_GT(compared_processes, 0) << compared.standard_error;
}

// Frames of the C library stand between those of Python, and frames of code that is made at run time.
const std::string PYTHON_SCRIPT = R"(
import ctypes, json, subprocess, threading
results = []
def work(number):
    compare = lambda left, right: len(json.dumps([[number]] * 50)) * 0
    callback = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p)(compare)
    numbers = (ctypes.c_int * 999)()
    ctypes.CDLL(None).qsort(numbers, 999, 4, callback)
    results.append((number, sum(numbers)))
threads = [threading.Thread(target=work, args=(number,)) for number in range(4)]
[thread.start() for thread in threads]
[thread.join() for thread in threads]
print(sorted(results))
print(subprocess.run(["sh", "-c", "echo child; exit 4"], stdout=subprocess.PIPE))
raise SystemExit(6)
)";

const std::string SHELL_SCRIPT = R"(
words=$(for number in 1 2 3 4 5; do echo "word $number"; done | sort -r | tr a-z A-Z)
cat <<TEXT | while read -r line; do echo "got $line"; done
here $words $((6 * 7))
TEXT
declare -A table
for number in {1..2000}; do table[$number]=${number}x; done
echo ${#table[@]} >&2
exit 9
)";

const std::string GIT_SCRIPT = R"(
export GIT_AUTHOR_NAME=A GIT_AUTHOR_EMAIL=a@b GIT_COMMITTER_NAME=C GIT_COMMITTER_EMAIL=c@d
export GIT_AUTHOR_DATE='1700000000 +0000' GIT_COMMITTER_DATE='1700000001 +0000' GIT_CONFIG_NOSYSTEM=1
git init -q -b trunk . && echo text >file && git add file && git commit -q -m Change
echo more >>file && git commit -q -a -m More && git log --stat -p && git gc -q && git fsck
)";

// Without headers: thousands of allocations, not hundreds of thousands.
const std::string CPP_SOURCE = R"(
template <int N> struct SUM { static constexpr int value = N + SUM<N - 1>::value; };
template <> struct SUM<0> { static constexpr int value = 0; };
template <class T> T twice(T value) { return value + value; }
int main() { return twice(SUM<200>::value) == 40200 && twice(0.5) == 1.0 ? 0 : 1; }
)";

const std::string SMALL = VBX_TEST_LIBRARIES "/libstress_small.so";
const std::string LARGE = VBX_TEST_LIBRARIES "/libstress_large.so";

const auto name_of = [](const auto& program) { return program.param.name; };
const PROGRAM PYTHON = {"python", {"/usr/bin/python3"}, PYTHON_SCRIPT, "exit 6"};
const PROGRAM GXX = {"gxx", {"g++", "-x", "c++", "-", "-o", "result"}, CPP_SOURCE, "exit 0", "result", 4};
const PROGRAM CLANG = {
    "clang", {"clang++", "-x", "c++", "-c", "-", "-o", "result"}, CPP_SOURCE, "exit 0", "result"};
const PROGRAM CROWD = {"crowd", {STRESS, SMALL, LARGE}};

INSTANTIATE_TEST_SUITE_P(System, Programs,
                         testing::Values(PYTHON, GXX, CLANG, CROWD, PROGRAM{"ls", {"ls", "-l", "/usr/bin"}},
                                         PROGRAM{"bash", {"bash"}, SHELL_SCRIPT, "exit 9", "none", 3},
                                         PROGRAM{"git", {"sh"}, GIT_SCRIPT, "exit 0", "file", 10},
                                         PROGRAM{"static_runtime", {STRESS_STATIC, SMALL, LARGE}},
                                         PROGRAM{"streams", {STREAMS}, "", "exit 0", "data"}),
                         name_of);

INSTANTIATE_TEST_SUITE_P(
    System, Unwinder,
    testing::Values(
        PYTHON, GXX, CLANG, CROWD,
        PROGRAM{"sqlite", {"sqlite3"}, "select count(distinct value || 'x') from generate_series(1, 30000);"},
        PROGRAM{"foreign_stacks", {STRESS}, "", "exit 0", "none", 1, true}),
    name_of);

} // namespace
