// In real programs the unwinder sees the frames that libgcc sees, all of them, at every allocation.

#include "tests/support/run_child.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

namespace {

struct PROGRAM {
    const char* name;
    std::vector<std::string> arguments;
    std::string input = "";
    std::string output = ""; // expected, when not empty
    // Of a hundred captures, how many may at most be left to libgcc: else comparing says nothing.
    int percent_by_libgcc = 5;
};

void PrintTo(const PROGRAM& program, std::ostream* stream) {
    *stream << program.name;
}

std::string name_of(const testing::TestParamInfo<PROGRAM>& program) {
    return program.param.name;
}

std::map<std::string, long long> read_verdict(const std::string& path) {
    std::istringstream stream(test_read_file(path));
    std::map<std::string, long long> verdict;
    for (std::string line; std::getline(stream, line);)
        verdict[line.substr(0, line.find('='))] += std::stoll(line.substr(line.find('=') + 1));
    return verdict;
}

class Unwinder : public testing::TestWithParam<PROGRAM> {};

TEST_P(Unwinder, SeesWhatLibgccSees) {
    const PROGRAM& program = GetParam();
    const TEST_DIRECTORY directory;
    const TEST_DIRECTORY verdicts;
    const TEST_ENVIRONMENT environment = {
        {"LD_PRELOAD", VBX_TEST_LIBRARIES "/libtbbamalloc.so " VBX_TEST_UNWIND_CHECKER},
        {"VBX_TEST_VERDICTS", verdicts.path()},
        {"GIT_CONFIG_NOSYSTEM", "1"},
    };
    const TEST_OUTCOME outcome =
        test_run_child({program.arguments, environment, program.input, 100}, directory);
    if (outcome.end() == "exit 127")
        GTEST_SKIP() << program.arguments[0] << " is not installed";
    EXPECT_EQ(outcome.end(), "exit 0") << outcome.standard_error;
    if (!program.output.empty()) {
        EXPECT_EQ(outcome.standard_output, program.output);
    }

    std::map<std::string, long long> sum;
    for (const std::string& file : verdicts.files("unwinder."))
        for (const auto& [key, value] : read_verdict(verdicts / file))
            sum[key] += value;
    std::printf("%s: %lld captures, %lld frames, %lld by libgcc\n", program.name, sum["captures"],
                sum["frames"], sum["libgcc"]);
    EXPECT_EQ(sum["differences"], 0) << outcome.standard_error;
    EXPECT_GT(sum["captures"], 100);
    EXPECT_LE(sum["libgcc"] * 100, sum["captures"] * program.percent_by_libgcc);
}

const std::string PYTHON_SCRIPT = R"(
import json, re, threading, decimal, ctypes
def work():
    text = json.dumps({str(key): [key] * (key % 50) for key in range(300)})
    for round in range(20):
        json.loads(text)
    re.sub('(a+)(b|c)', r'\2\1', 'aaabaac' * 2000)
    sum(decimal.Decimal(number) / 7 for number in range(2000))
threads = [threading.Thread(target=work) for number in range(3)]
[thread.start() for thread in threads]
[thread.join() for thread in threads]
COMPARE = ctypes.CFUNCTYPE(ctypes.c_int, ctypes.POINTER(ctypes.c_int), ctypes.POINTER(ctypes.c_int))
numbers = (ctypes.c_int * 500)(*range(500, 0, -1))
ctypes.CDLL(None).qsort(numbers, 500, 4, COMPARE(lambda a, b: len([a[0]] * 100) and a[0] - b[0]))
)";

const std::string PERL_SCRIPT = R"(
use POSIX; use List::Util qw(reduce);
my %seen; $seen{$_ % 997} .= "x$_" for 1 .. 20000;
my $longest = reduce { length $a > length $b ? $a : $b } values %seen;
my $text = "a" x 50000; $text =~ s/(a{7})/<$1>/g; eval { die { text => $text } } for 1 .. 100;
)";

const std::string GIT_SCRIPT = R"(
set -e
git init -q .
for number in 1 2 3 4; do
    seq $number 3000 > file
    git add file
    git -c user.name=A -c user.email=a@b commit -q -m "Change $number"
done
git log -p > /dev/null
git gc -q
)";

const std::string SQL = R"(
create table words(number integer primary key, word text);
with recursive n(x) as (select 1 union all select x + 1 from n where x < 30000)
insert into words select x, printf('word %08d', x * 7919 % 30000) from n;
create index by_word on words(word);
select count(distinct substr(word, 9)) from words where word glob '*7*';
)";

const std::string CPP_SOURCE = R"(
#include <map>
#include <string>
#include <vector>
int main() {
    std::map<std::string, std::vector<int>> table;
    table["a"].push_back(1);
    return static_cast<int>(table.size()) - 1;
}
)";

std::vector<std::string> host(const std::string& name, const std::vector<std::string>& arguments = {}) {
    std::vector<std::string> command = {VBX_TEST_UNWINDER_HOSTS "/" + name};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

INSTANTIATE_TEST_SUITE_P(
    System, Unwinder,
    testing::Values(PROGRAM{"python", {"/usr/bin/python3"}, PYTHON_SCRIPT},
                    PROGRAM{"perl", {"perl"}, PERL_SCRIPT}, PROGRAM{"git", {"sh"}, GIT_SCRIPT},
                    PROGRAM{"sqlite", {"sqlite3"}, SQL},
                    PROGRAM{"gxx", {"g++", "-O2", "-x", "c++", "-", "-o", "result"}, CPP_SOURCE},
                    PROGRAM{"clang", {"clang++", "-O1", "-x", "c++", "-c", "-", "-o", "result"}, CPP_SOURCE}),
    name_of);

// Foreign stacks and signal handlers are libgcc's.
INSTANTIATE_TEST_SUITE_P(
    Own, Unwinder,
    testing::Values(PROGRAM{"exceptions", host("exceptions"), "", "done\n"},
                    PROGRAM{"exceptions_with_frame_pointers", host("exceptions_with_frame_pointers"), "",
                            "done\n"},
                    PROGRAM{"foreign_stacks", host("foreign_stacks"), "", "400 handled\n", 90},
                    PROGRAM{"closed_libraries",
                            host("plugin_swapper", {VBX_TEST_UNWINDER_HOSTS "/plugin_small.so",
                                                    VBX_TEST_UNWINDER_HOSTS "/plugin_large.so"}),
                            "", "at the same address\n"}),
    name_of);

} // namespace
