// What can keep a process from ending; the first argument says which.
#include "busy.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <vbx/mem.h>

#include <dlfcn.h>
#include <link.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <ostream>
#include <streambuf>
#include <string>

namespace {

void load_and_unload(const char* library, int rounds, void (*use)(void* handle)) {
    for (int round = 0; round < rounds; ++round) {
        void* const handle = dlopen(library, RTLD_NOW);
        if (handle == nullptr)
            std::_Exit(2);
        use(handle);
        dlclose(handle);
    }
}

// The loader's locks and the tracker's: first allocations from new code inside a dl_iterate_phdr callback,
// which holds the loader's lock, while other threads load and unload libraries.
int load(char** libraries) {
    const BUSY_THREADS busy(2);
    const std::jthread loader(load_and_unload, libraries[0], 300, [](void*) {});
    load_and_unload(libraries[1], 60, [](void* handle) {
        const auto allocate_inside = [](dl_phdr_info*, std::size_t, void* opaque) {
            reinterpret_cast<void (*)()>(opaque)();
            allocate_and_free(1, 10);
            return 0;
        };
        dl_iterate_phdr(allocate_inside, dlsym(handle, "allocate_from_new_code"));
    });
    return 9;
}

// Children of a process whose other threads are in the middle of the allocator, of events and of forks. They
// use the heap, free what is their parent's, and end by exit(), the whole way down. They leave no file
// behind.
int fork_children(char**) {
    if (mkdir("children", 0700) != 0)
        return 1;
    const BUSY_THREADS busy(3);
    void* inherited[64];
    for (void*& block : inherited)
        block = std::malloc(5000);
    const auto fork_again_and_again = [&inherited] {
        for (unsigned round = 0; round < 80; ++round) {
            const pid_t child = fork();
            if (child == 0) {
                for (void* const block : inherited)
                    std::free(block);
                allocate_and_free(round, 200);
                std::exit(chdir("children") == 0 ? 5 : 6);
            }
            int status = 0;
            if (waitpid(child, &status, 0) != child || !WIFEXITED(status) || WEXITSTATUS(status) != 5)
                std::_Exit(3);
        }
    };
    std::thread other(fork_again_and_again);
    fork_again_and_again();
    other.join();
    return rmdir("children") == 0 ? 9 : 4;
}

pthread_key_t key;

struct LATE {
    std::string text = std::string(500, 'x');
    ~LATE() { allocate_and_free(4, 20); }
};
thread_local LATE late;

void use_thread_data() {
    pthread_setspecific(key, std::malloc(700));
    late.text += "y";
    allocate_and_free(5, 50);
}

// Destructors of thread-local objects and of thread-specific data run behind everything else of a thread, and
// use the heap; those of cancelled threads too. Allocation is no cancellation point, the sleep is.
int end_threads(char**) {
    pthread_key_create(&key, [](void* value) {
        std::free(value);
        allocate_and_free(3, 20);
    });
    for (int round = 0; round < 20; ++round) {
        std::jthread cancelled([] {
            for (use_thread_data();; usleep(1))
                allocate_and_free(6, 5);
        });
        const std::jthread ended(use_thread_data);
        usleep(1000);
        pthread_cancel(cancelled.native_handle());
    }
    return 9;
}

// The process ends while threads allocate, or change the callbacks too: by the return of main, by exit() on
// another thread while main waits, or while main leaves by pthread_exit.
int end_with_threads(char** way) {
    [[maybe_unused]] static const auto* const busy = new BUSY_THREADS(3);
    usleep(20000);
    if (way[0] == std::string("with_callbacks"))
        std::thread([] {
            const auto ignore = [](void*, std::uint64_t, std::uint64_t, bool) {};
            for (;;) {
                mem_add_callback_function(ignore);
                mem_remove_callback_function(ignore);
            }
        }).detach();
    if (way[0] == std::string("return") || way[0] == std::string("with_callbacks"))
        return 9;
    std::thread([] { std::exit(9); }).detach();
    if (way[0] == std::string("leave_main"))
        pthread_exit(nullptr);
    for (;;)
        pause();
}

// exit() from where the tracker is in the middle of its work: a host's callback inside an event, and the new
// handler of a failing allocation.
int exit_inside_event(char** where) {
    const bool is_callback = where[0] == std::string("callback");
    if (is_callback)
        mem_add_callback_function([](void*, std::uint64_t, std::uint64_t size, bool is_allocation) {
            if (is_allocation && size == 123'456)
                std::exit(9);
        });
    _set_new_handler([](std::size_t) -> int { std::exit(9); });
    _set_new_mode(1);
    void* volatile block = std::malloc(is_callback ? 123'456 : std::size_t{1} << 60);
    std::free(block);
    return 8;
}

// exit() in a signal handler, with the thread in the middle of a query.
int exit_inside_query(char**) {
    signal(SIGALRM, [](int) { std::exit(9); });
    void* const block = std::malloc(100);
    ualarm(20'000, 0);
    for (MEM_ADDRESS_TRACKER site;;)
        mem_get_address_tracker(block, site);
}

// A host's stream, which does something of its own instead of writing.
class ODD_STREAM : std::streambuf, public std::ostream {
  public:
    explicit ODD_STREAM(void (*deed)()) : std::ostream(static_cast<std::streambuf*>(this)), m_deed(deed) {}

  private:
    int overflow(int) override {
        m_deed();
        return std::streambuf::traits_type::eof();
    }
    void (*m_deed)();
};

// It holds the locks of the sites.
void report_to(void (*deed)()) {
    ODD_STREAM stream(deed);
    mem_dump_tbb_fileline_tracking(stream);
}

int exit_inside_report(char**) {
    report_to([] { std::exit(9); });
    return 8;
}

// Another thread is in the middle of a report: for good, or for longer than events take.
int end_while_reporting(char** way) {
    static std::atomic<bool> is_reporting{false};
    const auto take_long = [] {
        if (!is_reporting.exchange(true))
            sleep(3);
    };
    const auto stay = [] {
        for (is_reporting = true;;)
            pause();
    };
    std::thread(report_to, way[0] == std::string("slow") ? +take_long : +stay).detach();
    while (!is_reporting)
        usleep(1000);
    return 9;
}

} // namespace

int main(int, char** arguments) {
    const std::map<std::string, int (*)(char**)> dangers = {
        {"load", load},
        {"fork", fork_children},
        {"end_threads", end_threads},
        {"end_with_threads", end_with_threads},
        {"exit_inside_event", exit_inside_event},
        {"exit_inside_query", exit_inside_query},
        {"exit_inside_report", exit_inside_report},
        {"end_while_reporting", end_while_reporting},
    };
    return dangers.at(arguments[1])(arguments + 2);
}
