// A small host of the library; its first argument says what it does to it.
#include <vbx/mem.h>

#include <dlfcn.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <locale>
#include <map>
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

static void close_output(char**) {
    close(STDOUT_FILENO);
    close(STDERR_FILENO);
}

static void limit_files(char**) {
    const rlimit bytes{500, 500};
    setrlimit(RLIMIT_FSIZE, &bytes);
}

static void leak_initialiser(char**) {
    [[maybe_unused]] static const auto* const leaked = new MEM_INITIALIZER("leaked");
}

static void ask_configuration(char** library) {
    if (*library != nullptr)
        dlopen(*library, RTLD_NOW);
    const bool is_on = mem_cfg_is_on("probe_on", false);
    const std::string value = mem_cfg_get_value("probe");
    std::printf("%d %s %d\n", is_on, value.c_str(), mem_cfg_get_int_value("probe", 3));
}

static void register_code_modules(char**) {
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
static void lock_output(char**) {
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

static void start_without_descriptors(char**) {
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

static void free_twice(char** size_and_way) {
    void* const block = make(std::stoul(size_and_way[0]));
    drop(block);
    drop(size_and_way[1] == std::string("free") ? block : std::realloc(block, 10));
}

// A callback that keeps what it sees, in blocks that it gives back now and then. Its own events it passes
// over, as the library asks of it; those of the library's work in the middle of an event it sees.
static void keep_events(char**) {
    static auto& kept = *new std::vector<void*>; // for as long as there are events
    static bool is_inside = false;
    mem_add_callback_function([](void* block, std::uint64_t, std::uint64_t, bool) {
        if (std::exchange(is_inside, true))
            return;
        kept.push_back(block);
        if (kept.size() % 64 == 0)
            std::vector<void*>().swap(kept);
        is_inside = false;
    });
    // The first free of an address is what the check needs memory for.
    std::vector<void*> blocks;
    for (std::size_t round = 0; round < 20'000; ++round)
        blocks.push_back(make(8 + round % 600));
    std::for_each(blocks.rbegin(), blocks.rend(), drop);
}

// The program's own files take the numbers of all that were open.
static void log_and_close_all(char**) {
    drop(make(77));
    for (int descriptor = 3; descriptor < 1024; ++descriptor)
        close(descriptor);
    std::vector<std::FILE*> files;
    for (int index = 0; index < 600; ++index)
        files.push_back(std::fopen("own", "w"));
    drop(make(78));
}

static void log_on_threads(char**) {
    std::vector<std::jthread> threads;
    for (int index = 0; index < 4; ++index)
        threads.emplace_back([] {
            for (std::size_t round = 0; round < 500; ++round)
                drop(make(90'000 + round));
        });
}

int main(int, char** arguments) {
    const std::map<std::string, void (*)(char**)> actions = {
        {"none", [](char**) {}},
        {"close_output", close_output},
        {"group_digits",
         [](char**) {
             std::locale::global({std::locale::classic(), new GROUPING});
         }},
        {"tag", [](char** tag) { mem_set_tbb_exe_string(*tag); }},
        {"remove_directory", [](char**) { std::filesystem::remove(std::filesystem::current_path()); }},
        {"limit_files", limit_files},
        {"ask_configuration", ask_configuration},
        {"lock_output", lock_output},
        {"remove_program",
         [](char**) { std::filesystem::remove(std::filesystem::read_symlink("/proc/self/exe")); }},
        {"start_without_descriptors", start_without_descriptors},
        {"leak_initialiser", leak_initialiser},
        {"register_code_modules", register_code_modules},
        {"free_twice", free_twice},
        {"keep_events", keep_events},
        {"log_and_close_all", log_and_close_all},
        {"log_on_threads", log_on_threads},
    };
    actions.at(arguments[1])(arguments + 2);
    void* volatile leaked = std::malloc(1'234'567);
    return leaked != nullptr ? 9 : 1;
}
