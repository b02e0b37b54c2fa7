// Unmodified programs behave under the preloaded library, with every feature on, as they do without, and the
// reports agree with what an independent checker has seen of the same events.

#include "tests/support/report_rows.h"
#include "tests/support/run_child.h"

#include <gtest/gtest.h>

#include <map>
#include <sstream>

namespace {

struct PROGRAM {
    const char* name;
    std::vector<std::string> arguments;
    std::string input;
    std::vector<std::string> results; // files it leaves, compared byte for byte
    int exit_status = 0;
    std::size_t processes = 1; // that must at least have given a verdict
    TEST_ENVIRONMENT environment = {};
};

void PrintTo(const PROGRAM& program, std::ostream* stream) {
    *stream << program.name;
}

std::string name_of(const testing::TestParamInfo<PROGRAM>& program) {
    return program.param.name;
}

// Without the lines that the library adds, which have their own beginnings.
std::string without_our_lines(const std::string& text) {
    std::istringstream stream(text);
    std::string rest;
    for (std::string line; std::getline(stream, line);)
        if (!line.starts_with("MEM: ") && !line.starts_with("Debug: MEM: "))
            rest += line + "\n";
    return rest;
}

std::map<std::string, long long> read_verdict(const std::string& path) {
    std::istringstream stream(test_read_file(path));
    std::map<std::string, long long> verdict;
    for (std::string line; std::getline(stream, line);)
        verdict[line.substr(0, line.find('='))] = std::stoll(line.substr(line.find('=') + 1));
    return verdict;
}

TEST_FIGURES sum_of(const std::vector<TEST_SITE_ROW>& rows) {
    TEST_FIGURES sum;
    for (const TEST_SITE_ROW& row : rows)
        sum += row.figures;
    return sum;
}

void expect_catch_all_not_negative(const std::vector<TEST_SITE_ROW>& rows) {
    int catch_alls = 0;
    for (const TEST_SITE_ROW& row : rows) {
        if (row.address != 0)
            continue;
        ++catch_alls;
        EXPECT_GE(row.figures.current_bytes, 0);
        EXPECT_GE(row.figures.current_blocks, 0);
    }
    EXPECT_EQ(catch_alls, 1);
}

void expect_sound_process(const TEST_DIRECTORY& verdicts, const TEST_DIRECTORY& reports,
                          const std::string& process) {
    SCOPED_TRACE(process);
    const auto verdict = read_verdict(verdicts / ("verdict." + process));
    EXPECT_EQ(verdict.at("double_allocations"), 0);
    EXPECT_EQ(verdict.at("unknown_frees"), 0);
    EXPECT_EQ(verdict.at("size_mismatches"), 0);
    EXPECT_GT(verdict.at("allocations"), 0);

    const TEST_FIGURES before = sum_of(test_read_fileline_report(verdicts / ("at_attach." + process)));
    const auto rows = test_read_fileline_report(reports / ("mem_tbb_fileline." + process + ".log"));
    const TEST_FIGURES at_end = sum_of(rows);
    EXPECT_EQ(at_end.cumulative_blocks - before.cumulative_blocks, verdict.at("allocations"));
    EXPECT_EQ(at_end.current_bytes - before.current_bytes, verdict.at("live_bytes"));
    EXPECT_EQ(at_end.current_blocks - before.current_blocks, verdict.at("allocations") - verdict.at("frees"));
    expect_catch_all_not_negative(rows);
    // The subsystems are the same figures, added up otherwise.
    TEST_FIGURES subsystems;
    for (const TEST_SUBSYSTEM_ROW& row :
         test_read_subsystem_report(reports / ("mem_tbb_subsystem." + process + ".log")))
        subsystems += row.figures;
    EXPECT_EQ(subsystems.cumulative_bytes, at_end.cumulative_bytes);
    EXPECT_EQ(subsystems.current_bytes, at_end.current_bytes);
}

class Programs : public testing::TestWithParam<PROGRAM> {};

TEST_P(Programs, BehaveAsWithoutUsAndAreCountedExactly) {
    const PROGRAM& program = GetParam();
    TEST_COMMAND command{program.arguments, program.environment, program.input};
    const TEST_DIRECTORY plain_directory;
    const TEST_OUTCOME plain = test_run_child(command, plain_directory);
    if (plain.end() == "exit 127")
        GTEST_SKIP() << program.arguments[0] << " is not installed";

    ASSERT_EQ(plain.end(), "exit " + std::to_string(program.exit_status)) << plain.standard_error;

    const TEST_DIRECTORY directory;
    const TEST_DIRECTORY verdicts;
    command.environment = command.environment + test_preload({VBX_TEST_EVENT_CHECKER}) + test_all_switches() +
                          TEST_ENVIRONMENT{{"VBX_TEST_VERDICTS", verdicts.path()}};
    const TEST_OUTCOME tracked = test_run_child(command, directory);

    EXPECT_EQ(tracked.end(), plain.end());
    EXPECT_EQ(tracked.standard_output, plain.standard_output);
    EXPECT_EQ(without_our_lines(tracked.standard_error), plain.standard_error);
    for (const std::string& file : program.results)
        EXPECT_EQ(test_read_file(directory / file), test_read_file(plain_directory / file)) << file;

    const std::vector<std::string> given = verdicts.files("verdict.");
    EXPECT_GE(given.size(), program.processes);
    for (const std::string& file : given)
        expect_sound_process(verdicts, directory, file.substr(file.find('.') + 1));
}

const std::string PYTHON_SCRIPT = R"(
import ctypes, json, subprocess, threading
results = []
def work(number):
    text = json.dumps({str(key): [number] * key for key in range(200)})
    results.append((number, len(json.loads(text)), len(text)))
threads = [threading.Thread(target=work, args=(number,)) for number in range(4)]
[thread.start() for thread in threads]
[thread.join() for thread in threads]
print(sorted(results))
libc = ctypes.CDLL(None)
libc.malloc.restype = ctypes.c_void_p
libc.malloc.argtypes = [ctypes.c_size_t]
libc.free.argtypes = [ctypes.c_void_p]
for size in range(0, 20000, 100):
    libc.free(libc.malloc(size))
print(subprocess.run(["sh", "-c", "echo child; exit 4"], stdout=subprocess.PIPE))
raise SystemExit(6)
)";

const std::string SHELL_SCRIPT = R"(
words=$(for number in 1 2 3 4 5; do echo "word $number"; done | sort -r | tr a-z A-Z)
echo "$words"
(cd / && pwd; exit 3); echo "subshell $?"
cat <<TEXT | while read -r line; do echo "got $line"; done
here $((6 * 7))
document
TEXT
declare -A table
for number in {1..2000}; do table[$number]=${number}x; done
echo ${#table[@]} >&2
exit 9
)";

const std::string GIT_SCRIPT = R"(
set -e
git init -q -b trunk . 
for number in 1 2 3; do
    echo "text $number" > file
    git add file
    git commit -q -m "Change $number"
done
git log --format='%H %an %s' --stat
git diff HEAD~2
git cat-file -p HEAD^{tree}
git gc -q
git fsck
)";

const TEST_ENVIRONMENT GIT_ENVIRONMENT = {
    {"GIT_AUTHOR_NAME", "A"},
    {"GIT_AUTHOR_EMAIL", "a@b"},
    {"GIT_COMMITTER_NAME", "C"},
    {"GIT_COMMITTER_EMAIL", "c@d"},
    {"GIT_AUTHOR_DATE", "1700000000 +0000"},
    {"GIT_COMMITTER_DATE", "1700000001 +0000"},
    {"GIT_CONFIG_NOSYSTEM", "1"},
};

const std::string SQL = R"(
create table words(number integer primary key, word text, weight real);
with recursive n(x) as (select 1 union all select x + 1 from n where x < 5000)
insert into words select x, printf('word %08d', x * 7919 % 5000), x / 3.0 from n;
create index by_word on words(word);
select count(*), sum(weight), min(word) from words where word > 'word 00002500';
select substr(word, 1, 7), count(*) from words group by 1 order by 2 desc limit 5;
)";

// Without headers: thousands of allocations, not hundreds of thousands.
const std::string CPP_SOURCE = R"(
template <int N> struct SUM { static constexpr int value = N + SUM<N - 1>::value; };
template <> struct SUM<0> { static constexpr int value = 0; };
template <class T> T twice(T value) { return value + value; }
int main() { return twice(SUM<200>::value) == 40200 && twice(0.5) == 1.0 ? 0 : 1; }
)";

const std::string PERL_SCRIPT = R"(
my %seen; $seen{$_ % 997} .= "x$_" for 1 .. 20000;
print join(",", map { "$_=" . length $seen{$_} } (sort { $a <=> $b } keys %seen)[0 .. 9]), "\n";
my $text = "a" x 50000; $text =~ s/(a{7})/<$1>/g; print length($text), "\n";
print `echo from a child`; warn "to standard error\n"; exit 11;
)";

std::vector<std::string> host(const std::string& name, const std::vector<std::string>& arguments = {}) {
    std::vector<std::string> command = {VBX_TEST_HOSTS "/" + name};
    command.insert(command.end(), arguments.begin(), arguments.end());
    return command;
}

const std::string PLUGIN = VBX_TEST_HOSTS "/host_plugin.so";

INSTANTIATE_TEST_SUITE_P(
    System, Programs,
    testing::Values(PROGRAM{"ls", {"ls", "-l", "/usr/bin"}, "", {}},
                    PROGRAM{"bash", {"bash"}, SHELL_SCRIPT, {}, 9, 3},
                    PROGRAM{"python", {"/usr/bin/python3"}, PYTHON_SCRIPT, {}, 6},
                    PROGRAM{"perl", {"perl"}, PERL_SCRIPT, {}, 11},
                    PROGRAM{"git", {"sh"}, GIT_SCRIPT, {"file"}, 0, 10, GIT_ENVIRONMENT},
                    PROGRAM{"sqlite", {"sqlite3"}, SQL, {}},
                    PROGRAM{"gxx", {"g++", "-x", "c++", "-", "-o", "result"}, CPP_SOURCE, {"result"}, 0, 4},
                    PROGRAM{
                        "clang", {"clang++", "-x", "c++", "-c", "-", "-o", "result"}, CPP_SOURCE, {"result"}},
                    PROGRAM{"xmllint", {"xmllint", "--format", "-"}, "<a><b c='1'>text</b><b/></a>", {}}),
    name_of);

INSTANTIATE_TEST_SUITE_P(
    Own, Programs,
    testing::Values(PROGRAM{"threads", host("threads_and_plugins", {PLUGIN}), "", {}, 7},
                    PROGRAM{
                        "static_runtime", host("threads_and_plugins_static_runtime", {PLUGIN}), "", {}, 7},
                    PROGRAM{"wide_output", host("wide_output"), "", {}, 3},
                    PROGRAM{"closed_output", host("closed_output"), "", {"data"}, 5},
                    PROGRAM{"own_name", host("own_name"), "", {}}),
    name_of);

} // namespace
