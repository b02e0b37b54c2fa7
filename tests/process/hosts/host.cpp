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

static void print_mask() {
    unsigned mask = 0;
    for (unsigned bit = 1; bit <= 64; bit <<= 1)
        mask |= mem_tracking_is_enabled(static_cast<MEM_TRACKING_GRANULARITY>(bit)) ? bit : 0;
    std::printf("mask %u\n", mask);
}

// The loaded code stays what it was; the file of its name is another when its symbols are first asked for.
static void replace_file(const char* library, std::size_t kept_bytes) {
    std::filesystem::copy_file(library, "./copy.so");
    void* const handle = dlopen("./copy.so", RTLD_NOW);
    const auto use = reinterpret_cast<void (*)()>(dlsym(handle, "allocate_from_new_code"));
    std::filesystem::copy_file("./copy.so", "./new.so");
    std::filesystem::resize_file("./new.so", kept_bytes);
    std::filesystem::rename("./new.so", "./copy.so");
    use();
}

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

// Live bytes that are left when all blocks have been given back.
static void print_bytes_left_of_chunks() {
    MEM_UTILS_CHUNK_ALLOC chunks;
    const long long before = mem_get_global_current().bytes.load();
    void* const blocks[] = {chunks.chunk_malloc(100, 8), chunks.chunk_malloc(40'000, 8)};
    const bool counts = mem_get_global_current().bytes.load() >= before + 40'000;
    chunks.chunk_free_memory();
    for (void* const block : blocks)
        chunks.chunk_delete_when_chunking_disabled(block);
    if (counts)
        std::printf("%lld left\n", mem_get_global_current().bytes.load() - before);
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
    } else if (action == "replace_file") {
        replace_file(arguments[2], std::strtoul(arguments[3], nullptr, 10));
    } else if (action == "ask_configuration") {
        ask_configuration(arguments[2]);
    } else if (action == "lock_output") {
        lock_output();
    } else if (action == "use_chunks") {
        print_bytes_left_of_chunks();
    } else if (action == "register_code_modules") {
        register_code_modules();
    } else if (action == "exhaust_chunks") {
        std::printf("before");
        MEM_UTILS_CHUNK_ALLOC().chunk_malloc(std::strtoull(arguments[2], nullptr, 10), 16);
    } else if (action == "mask") {
        print_mask();
    }
    void* volatile leaked = std::malloc(1'234'567);
    return leaked != nullptr ? 9 : 1;
}
