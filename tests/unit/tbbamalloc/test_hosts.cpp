// The library as a guest: what it needs and exports, and that unmodified programs behave the same with it.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <memory>
#include <set>
#include <sstream>
#include <string>

namespace {

struct OUTCOME {
    std::string text;
    int status;
    bool operator==(const OUTCOME&) const = default;
};

OUTCOME run(const std::string& command) {
    OUTCOME outcome = {};
    FILE* const pipe = popen(command.c_str(), "r");
    if (pipe == nullptr)
        return {"", -1};
    std::array<char, 4096> buffer;
    while (const std::size_t count = fread(buffer.data(), 1, buffer.size(), pipe))
        outcome.text.append(buffer.data(), count);
    outcome.status = pclose(pipe);
    return outcome;
}

struct HOST {
    const char* name;
    const char* command; // quoted for sh -c '...'
};

void PrintTo(const HOST& host, std::ostream* stream) {
    *stream << host.command;
}

class Hosts : public testing::TestWithParam<HOST> {};

TEST_P(Hosts, BehaveTheSame) {
    const std::string command = std::string("timeout 50 sh -c '") + GetParam().command + "' 2>&1";
    const OUTCOME plain = run(command);
    ASSERT_NE(WEXITSTATUS(plain.status), 127) << plain.text;
    EXPECT_EQ(run("LD_PRELOAD=" SHIM_PATH " " + command), plain);
}

const HOST hosts[] = {
    {"ls", "ls -la /usr/bin"},
    {"failing", "ls /nowhere"},
    {"bash", "bash -c \"(echo b; (echo a; exit 3)) | sort; x=\\$(echo \\$(ls /usr)); echo \\$x; exit 5\""},
    {"python3",
     "python3 -c \"import threading, subprocess, os\n"
     "ts = [threading.Thread(target=lambda: [bytearray(10 ** i) for i in range(8)]) for _ in range(8)]\n"
     "[t.start() for t in ts]\n"
     "print(subprocess.check_output([\\\"echo\\\", \\\"from a child\\\"]))\n"
     "print(os.waitpid(os.posix_spawn(\\\"/bin/false\\\", [\\\"false\\\"], {}), 0)[1])\n"
     "pid = os.fork()\n"
     "if not pid: os._exit(len([str(i) for i in range(10 ** 5)]) % 7)\n"
     "print(os.waitpid(pid, 0)[1])\n"
     "[t.join() for t in ts]\""},
    {"perl", "perl -e \"my %h = map { \\$_ => \\$_ x 100 } 1..20000; print scalar(keys %h), length(join(q(), "
             "values %h))\""},
    {"git", "cd /usr && git -c core.pager=cat diff --no-index --stat /etc/passwd /etc/group"},
    {"sqlite3",
     "sqlite3 :memory: \"with recursive n(i) as (select 1 union all select i + 1 from n where i < 50000) "
     "select count(*), max(hex(i * 7)) from n order by 1\""},
    {"gxx", "echo \"#include <string>\nstd::string f() { return {}; }\" | g++ -x c++ -O1 -S -o - -"},
};

INSTANTIATE_TEST_SUITE_P(Programs, Hosts, testing::ValuesIn(hosts),
                         [](const auto& test) { return std::string(test.param.name); });

std::set<std::string> words(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

TEST(Library, NeedsNoRuntimeButTheC) {
    const OUTCOME needed = run("readelf -d " SHIM_PATH " | sed -n 's/.*NEEDED.*\\[\\(.*\\)\\]/\\1/p'");
    EXPECT_EQ(words(needed.text), (std::set<std::string>{"libc.so.6", "libtbbmalloc.so.2"}));
}

TEST(Library, ExportsItsList) {
    std::ifstream file(EXPORT_LIST);
    std::set<std::string> listed;
    for (std::string line; std::getline(file, line);) {
        if (line.starts_with("    ") && line != "    *;")
            listed.insert(line.substr(4, line.size() - 5));
    }
    EXPECT_FALSE(listed.empty());
    EXPECT_EQ(words(run("nm -D --defined-only --format=just-symbols " SHIM_PATH).text), listed);
}

} // namespace
