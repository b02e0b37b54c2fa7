// A small host of the library; its first argument says what it does to it.
#include <vbx/mem.h>

#include <dlfcn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <locale>
#include <string>
#include <thread>
#include <utility>

static const std::string long_name(10'000, 'n');
static MEM_INITIALIZER mem_initializer(std::getenv("HOST_LONG_NAME") != nullptr ? long_name.c_str() : "host");

struct GROUPING : std::numpunct<char> {
    char do_thousands_sep() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
};

static void ask_configuration(const char* library) {
    if (library != nullptr)
        dlopen(library, RTLD_NOW);
    const bool is_on = mem_cfg_is_on("probe_on", false);
    const std::string value = mem_cfg_get_value("probe");
    std::printf("%d %s %d\n", is_on, value.c_str(), mem_cfg_get_int_value("probe", 3));
}

static void register_code_modules() {
    const char* const none = nullptr;
    const std::pair<const char*, const char*> pairs[] = {
        {"router", "small"}, {"parser", "y"}, {"parser", "x"}, {"", ""},
        {"parser", "y"},     {"\xE4", "z"},   {none, "x"},     {"x", none}};
    for (const auto& [module, workload] : pairs)
        mem_register_dll_for_pgo(module, workload);
    setenv("debug_msg", "on", 1); // too late
    if (fork() == 0)
        std::exit(0);
    wait(nullptr);
}

// The process ends while a thread has the stream for good.
static void lock_output() {
    static std::atomic<bool> is_locked{false};
    mem_register_dll_for_pgo("parser", "x");
    std::thread([] {
        flockfile(stdout);
        is_locked = true;
        is_locked.notify_one();
        pause();
    }).detach();
    is_locked.wait(false);
}

int main(int count, char** arguments) {
    const std::string action = count > 1 ? arguments[1] : "";
    if (action == "close_output") {
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
    } else if (action == "group_digits") {
        std::locale::global(std::locale(std::locale::classic(), new GROUPING));
    } else if (action == "tag") {
        mem_set_tbb_exe_string(arguments[2]);
    } else if (action == "remove_directory") {
        std::filesystem::remove(std::filesystem::current_path());
    } else if (action == "limit_files") {
        const rlimit bytes{300, 300};
        setrlimit(RLIMIT_FSIZE, &bytes);
    } else if (action == "ask_configuration") {
        ask_configuration(arguments[2]);
    } else if (action == "lock_output") {
        lock_output();
    } else if (action == "register_code_modules") {
        register_code_modules();
    }
    void* volatile leaked = std::malloc(1'234'567);
    return leaked != nullptr ? 9 : 1;
}
