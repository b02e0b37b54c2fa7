#include "tests/support/run_child.h"

#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace {

int checked(long result, const char* what) {
    if (result < 0)
        throw std::system_error(errno, std::generic_category(), what);
    return static_cast<int>(result);
}

// A file in memory: the child never waits for a reader, and its working directory stays empty.
int capture(const std::string& content = {}) {
    const int descriptor = checked(memfd_create("capture", MFD_CLOEXEC), "memfd_create");
    checked(write(descriptor, content.data(), content.size()), "write");
    lseek(descriptor, 0, SEEK_SET);
    return descriptor;
}

std::string take_text(int descriptor) {
    const std::string text = test_read_file("/proc/self/fd/" + std::to_string(descriptor));
    close(descriptor);
    return text;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> result;
    for (std::string& string : strings)
        result.push_back(string.data());
    result.push_back(nullptr);
    return result;
}

// What test runners have in their own environment must not decide how a test ends.
std::vector<std::string> environment_strings(const TEST_ENVIRONMENT& own, const std::string& home) {
    TEST_ENVIRONMENT all = {{"LC_ALL", "C.UTF-8"}, {"TZ", "UTC"}, {"HOME", home}};
    for (const char* const name : {"PATH", "ASAN_OPTIONS", "TSAN_OPTIONS", "UBSAN_OPTIONS"})
        if (const char* const value = std::getenv(name))
            all[name] = value;
    std::vector<std::string> strings;
    for (const auto& [name, value] : all + own)
        strings.push_back(name + "=" + value);
    return strings;
}

std::string wait_for_end(pid_t child) {
    pollfd ready{checked(syscall(SYS_pidfd_open, child, 0), "pidfd_open"), POLLIN, 0};
    const bool is_hung = poll(&ready, 1, 60'000) == 0;
    close(ready.fd);
    // Also when the child has ended: what it left behind would go on beside the next test.
    kill(-child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    if (is_hung)
        return "hang";
    return WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                             : "signal " + std::to_string(WTERMSIG(status));
}

} // namespace

TEST_DIRECTORY::TEST_DIRECTORY() : m_path(std::filesystem::temp_directory_path() / "vbx_test_XXXXXX") {
    checked(mkdtemp(m_path.data()) == nullptr ? -1 : 0, "mkdtemp");
}

TEST_DIRECTORY::~TEST_DIRECTORY() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::vector<std::string> TEST_DIRECTORY::files(const std::string& prefix) const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_path))
        if (const std::string name = entry.path().filename(); name.starts_with(prefix))
            names.push_back(name);
    std::ranges::sort(names);
    return names;
}

TEST_OUTCOME test_run_child(const TEST_COMMAND& command, const TEST_DIRECTORY& directory) {
    const int streams[] = {capture(command.input), capture(), capture()};
    std::vector<std::string> arguments = command.arguments;
    std::vector<std::string> environment = environment_strings(command.environment, directory.path());
    const std::vector<char*> argv = pointers(arguments);
    const std::vector<char*> envp = pointers(environment);
    const pid_t child = checked(fork(), "fork");
    if (child == 0) {
        setpgid(0, 0);
        for (int number = 0; number < 3; ++number)
            dup2(streams[number], number);
        if (chdir(directory.path().c_str()) == 0)
            execvpe(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    setpgid(child, child);
    const std::string end = wait_for_end(child);
    close(streams[0]);
    return {end, take_text(streams[1]), take_text(streams[2])};
}

TEST_ENVIRONMENT test_preload(const std::string& more_libraries) {
    const std::string own =
        VBX_TEST_LIBRARIES "/libtbbamalloc.so " VBX_TEST_LIBRARIES "/libvbx_mem_preload.so ";
    return {{"LD_PRELOAD", own + more_libraries}, {"TARVANE_MEM_PRELOAD_TAG", "%e.%p"}};
}

TEST_ENVIRONMENT test_all_switches() {
    TEST_ENVIRONMENT all = {{"debug_msg", "on"}};
    for (const char* const feature :
         {"PROFILE_ALL", "PROFILE_PER_BIN", "PROFILE_BIN_TAG_PLOT", "PROFILE_PER_LIBRARY",
          "PROFILE_PER_FILELINE", "PROFILE_AUXILIARY_TIMELINE", "CHECK_LEAKS", "CHECK_LEAKS_FAST"})
        all["TARVANE_MEM_" + std::string(feature)] = "1";
    return all;
}

TEST_ENVIRONMENT test_all_debug_aids() {
    return {{"mem_alloc_pattern_hex", "AB"},
            {"mem_free_pattern_hex", "DD"},
            {"mem_print_allocations", "on"},
            {"mem_check_double_free", "on"},
            {"mem_breakpoint_callback", "on"}};
}

TEST_ENVIRONMENT operator+(TEST_ENVIRONMENT left, const TEST_ENVIRONMENT& right) {
    for (const auto& [name, value] : right)
        left[name] = value;
    return left;
}

std::string test_read_file(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}
