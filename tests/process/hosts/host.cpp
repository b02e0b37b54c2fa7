// A small host of the library; its first argument says what it does to it.
#include <vbx/mem.h>

#include <dlfcn.h>
#include <sys/mman.h>
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
#include <vector>

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

static void start_without_descriptors() {
    constexpr std::size_t GIGABYTE = 1 << 30;
    std::thread([] {}).join();
    rlimit descriptors{};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    const rlimit none{0, descriptors.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    void* const mapped =
        mmap(nullptr, GIGABYTE, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    std::thread([] {}).join();
    munmap(mapped, GIGABYTE);
    setrlimit(RLIMIT_NOFILE, &descriptors);
    std::puts(mem_info_get_process_peak_virtual_used() > GIGABYTE ? "seen" : "not seen");
}

// ---- what the debug aids look at

[[gnu::noinline]] static void* make(std::size_t size) {
    void* volatile block = std::malloc(size);
    return block;
}
[[gnu::noinline]] static void drop(void* block) {
    std::free(block);
}

static void free_twice(std::size_t size, const std::string& way) {
    void* const block = make(size);
    drop(block);
    if (way != "realloc")
        drop(block);
    else if (std::realloc(block, 10) == nullptr)
        std::_Exit(2);
}

// The program's own files take the numbers of all that were open.
static void log_and_close_all() {
    drop(make(77));
    for (int descriptor = 3; descriptor < 1024; ++descriptor)
        close(descriptor);
    std::vector<std::FILE*> files;
    for (int index = 0; index < 600; ++index)
        files.push_back(std::fopen("own", "w"));
    drop(make(78));
}

static void log_on_threads() {
    std::vector<std::jthread> threads;
    for (int index = 0; index < 4; ++index)
        threads.emplace_back([] {
            for (std::size_t round = 0; round < 500; ++round)
                drop(make(90'000 + round));
        });
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
    } else if (action == "remove_program") {
        std::filesystem::remove(std::filesystem::read_symlink("/proc/self/exe"));
    } else if (action == "start_without_descriptors") {
        start_without_descriptors();
    } else if (action == "leak_initialiser") {
        [[maybe_unused]] static const auto* const leaked = new MEM_INITIALIZER("leaked");
    } else if (action == "register_code_modules") {
        register_code_modules();
    } else if (action == "free_twice") {
        free_twice(std::stoul(arguments[2]), arguments[3]);
    } else if (action == "log_and_close_all") {
        log_and_close_all();
    } else if (action == "log_on_threads") {
        log_on_threads();
    }
    void* volatile leaked = std::malloc(1'234'567);
    return leaked != nullptr ? 9 : 1;
}
