#include "tests/support/run_child.h"

#include <fcntl.h>
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
#include <sstream>
#include <system_error>

namespace {

[[noreturn]] void fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// A file in memory: the child never waits for a reader, and its working directory stays empty.
class CAPTURE {
  public:
    explicit CAPTURE(const std::string& content = {}) : m_descriptor(memfd_create("capture", MFD_CLOEXEC)) {
        if (m_descriptor < 0 ||
            write(m_descriptor, content.data(), content.size()) != static_cast<ssize_t>(content.size()))
            fail("capture file");
        lseek(m_descriptor, 0, SEEK_SET);
    }
    ~CAPTURE() { close(m_descriptor); }
    CAPTURE(const CAPTURE&) = delete;
    CAPTURE& operator=(const CAPTURE&) = delete;

    int descriptor() const { return m_descriptor; }
    std::string text() const { return test_read_file("/proc/self/fd/" + std::to_string(m_descriptor)); }

  private:
    int m_descriptor;
};

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

TEST_OUTCOME wait_for_end(pid_t child, unsigned seconds) {
    const int watched = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
    if (watched < 0)
        fail("pidfd_open");
    pollfd ready{watched, POLLIN, 0};
    TEST_OUTCOME outcome;
    outcome.hung = poll(&ready, 1, static_cast<int>(seconds * 1000)) == 0;
    close(watched);
    // Also when the child has ended: what it left behind would go on beside the next test.
    kill(-child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFEXITED(status))
        outcome.exit_status = WEXITSTATUS(status);
    else
        outcome.signal = WTERMSIG(status);
    return outcome;
}

} // namespace

TEST_DIRECTORY::TEST_DIRECTORY() : m_path(std::filesystem::temp_directory_path() / "vbx_test_XXXXXX") {
    if (mkdtemp(m_path.data()) == nullptr)
        fail("mkdtemp");
}

TEST_DIRECTORY::~TEST_DIRECTORY() {
    std::error_code ignored;
    std::filesystem::permissions(m_path, std::filesystem::perms::owner_all, ignored);
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

std::string TEST_OUTCOME::end() const {
    if (hung)
        return "hang";
    return signal != 0 ? "signal " + std::to_string(signal) : "exit " + std::to_string(exit_status);
}

TEST_OUTCOME test_run_child(const TEST_COMMAND& command, const TEST_DIRECTORY& directory) {
    const CAPTURE input(command.input);
    const CAPTURE output;
    const CAPTURE error;
    std::vector<std::string> arguments = command.arguments;
    std::vector<std::string> environment = environment_strings(command.environment, directory.path());
    const std::vector<char*> argv = pointers(arguments);
    const std::vector<char*> envp = pointers(environment);

    const pid_t child = fork();
    if (child < 0)
        fail("fork");
    if (child == 0) {
        setpgid(0, 0);
        dup2(input.descriptor(), STDIN_FILENO);
        dup2(output.descriptor(), STDOUT_FILENO);
        dup2(error.descriptor(), STDERR_FILENO);
        if (chdir(directory.path().c_str()) == 0)
            execvpe(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    setpgid(child, child);
    TEST_OUTCOME outcome = wait_for_end(child, command.seconds);
    outcome.standard_output = output.text();
    outcome.standard_error = error.text();
    return outcome;
}

TEST_ENVIRONMENT test_preload(const std::vector<std::string>& more_libraries) {
    std::string list = VBX_TEST_LIBRARIES "/libtbbamalloc.so " VBX_TEST_LIBRARIES "/libvbx_mem_preload.so";
    for (const std::string& library : more_libraries)
        list += " " + library;
    return {{"LD_PRELOAD", list}, {"TARVANE_MEM_PRELOAD_TAG", "%e.%p"}};
}

TEST_ENVIRONMENT test_all_switches() {
    TEST_ENVIRONMENT all;
    for (const char* const feature :
         {"PROFILE_ALL", "PROFILE_PER_BIN", "PROFILE_BIN_TAG_PLOT", "PROFILE_PER_LIBRARY",
          "PROFILE_PER_FILELINE", "PROFILE_AUXILIARY_TIMELINE", "CHECK_LEAKS", "CHECK_LEAKS_FAST"})
        all["TARVANE_MEM_" + std::string(feature)] = "1";
    return all + TEST_ENVIRONMENT{{"debug_msg", "on"}};
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
