// Runs a program as a child process and keeps all that can be seen of it from outside. What the child is
// given (a preload list first of all) is set in the child alone.
#pragma once

#include <map>
#include <string>
#include <vector>

// An empty directory of its own, removed with its contents at the end of the scope.
class TEST_DIRECTORY {
  public:
    TEST_DIRECTORY();
    ~TEST_DIRECTORY();
    TEST_DIRECTORY(const TEST_DIRECTORY&) = delete;
    TEST_DIRECTORY& operator=(const TEST_DIRECTORY&) = delete;

    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }
    // Names of the files in it that begin with a prefix, in order.
    std::vector<std::string> files(const std::string& prefix) const;

  private:
    std::string m_path;
};

using TEST_ENVIRONMENT = std::map<std::string, std::string>;

struct TEST_COMMAND {
    std::vector<std::string> arguments; // the program first, looked up in PATH
    TEST_ENVIRONMENT environment = {};  // beside a small fixed one; nothing of the runner's own but PATH
    std::string input = {};
};

struct TEST_OUTCOME {
    std::string end; // "exit 0", "signal 11", "hang"
    std::string standard_output;
    std::string standard_error;
};

// Runs the command in `directory` and waits for its end, a minute at most; then its whole process group is
// killed. Throws std::system_error when it can't be started.
TEST_OUTCOME test_run_child(const TEST_COMMAND& command, const TEST_DIRECTORY& directory);

// The variables that bring the library into an unmodified program, those that turn every feature on, and
// those of the debug aids.
TEST_ENVIRONMENT test_preload(const std::string& more_libraries = "");
TEST_ENVIRONMENT test_all_switches();
TEST_ENVIRONMENT test_all_debug_aids();
TEST_ENVIRONMENT operator+(TEST_ENVIRONMENT left, const TEST_ENVIRONMENT& right);

// The whole of a file; empty when it can't be read.
std::string test_read_file(const std::string& path);
