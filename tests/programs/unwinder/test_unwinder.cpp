// In real programs the unwinder sees the frames that libgcc sees, all of them, at every allocation.
#include "tests/support/run_child.h"

#include <gtest/gtest.h>

#include <regex>

struct PROGRAM {
    const char* name;
    std::vector<std::string> command;
    std::string input = "";
    const char* verdict =
        "[0-9]{4,} captures, [0-9]{1,2} by libgcc"; // were more, comparing would say nothing
    friend void PrintTo(const PROGRAM& program, std::ostream* stream) { *stream << program.name; }
};

class Unwinder : public testing::TestWithParam<PROGRAM> {};

TEST_P(Unwinder, SeesWhatLibgccSees) {
    const TEST_DIRECTORY directory;
    const TEST_COMMAND command = {GetParam().command, {{"LD_PRELOAD", PRELOAD}}, GetParam().input};
    const TEST_OUTCOME outcome = test_run_child(command, directory);
    if (outcome.end == "exit 127")
        GTEST_SKIP() << "not installed";
    EXPECT_EQ(outcome.end, "exit 0") << outcome.standard_error;
    EXPECT_TRUE(std::regex_search(outcome.standard_error, std::regex(GetParam().verdict)))
        << outcome.standard_error;
}

static const char* const PYTHON = R"(
import ctypes, json
COMPARE = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.c_void_p, ctypes.c_void_p)
ctypes.CDLL(None).qsort((ctypes.c_int * 999)(), 999, 4, COMPARE(lambda a, b: len(json.dumps([[a]] * 50)) * 0))
)";
static const char* const SQL = "select count(distinct value || 'x') from generate_series(1, 30000);";
static const char* const CPP = "#include <map>\n#include <string>\nstd::map<int, std::string> table;";
static const std::string LIBRARIES = VBX_TEST_LIBRARIES "/libstress_";

INSTANTIATE_TEST_SUITE_P(
    In, Unwinder,
    testing::Values(PROGRAM{"python", {"/usr/bin/python3"}, PYTHON}, PROGRAM{"sqlite", {"sqlite3"}, SQL},
                    PROGRAM{"gxx", {"g++", "-c", "-O2", "-xc++", "-"}, CPP},
                    PROGRAM{"clang", {"clang++", "-c", "-O2", "-xc++", "-"}, CPP},
                    PROGRAM{"foreign_stacks", {STRESS}, "", "captures"}, // are libgcc's
                    PROGRAM{"crowd", {STRESS, LIBRARIES + "small.so", LIBRARIES + "large.so"}}),
    [](const testing::TestParamInfo<PROGRAM>& program) { return program.param.name; });
