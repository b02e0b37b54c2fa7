// A preload library that watches the events of a program from both sides of the tracker's handler:
//
//     event -> [ before ] -> tracker's handler -> [ after ]
//                               own events: before, after
//
// What arrives on a thread between `before` and `after` of one event is the tracker's own heap use. All the
// rest is the program's, and has to make sense: no block twice, no size that has changed.
//
// It attaches behind the preload library and gives its verdict in front of that library's end, when the
// program and all its modules are gone: no event comes between verdict and reports, so their figures must be
// equal. What the tracker had counted before is in a report that is taken at the attach.

#include <vbx/mem.h>

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <mutex>
#include <string>

extern "C" void* __libc_malloc(std::size_t size) noexcept;
extern "C" void __libc_free(void* block) noexcept;
extern "C" int __cxa_atexit(void (*function)(void*), void* argument, void* module) noexcept;

namespace {

// The C library's own heap, behind the shim's back: with the shim the checker would have events itself.
template <class T>
struct UNSEEN_HEAP {
    using value_type = T;
    UNSEEN_HEAP() = default;
    template <class OTHER>
    explicit UNSEEN_HEAP(const UNSEEN_HEAP<OTHER>&) {}
    T* allocate(std::size_t count) { return static_cast<T*>(__libc_malloc(count * sizeof(T))); }
    void deallocate(T* block, std::size_t) { __libc_free(block); }
};
using LIVE_BLOCKS =
    std::map<std::uintptr_t, long long, std::less<>, UNSEEN_HEAP<std::pair<const std::uintptr_t, long long>>>;

constinit long long allocations = 0, frees = 0;
constinit long long live_bytes = 0; // allocated less freed since the attach: below 0 when more was freed
// Events: a block that is there already, a free with another size or of a block that nobody knows.
constinit long long senseless = 0;
constinit LIVE_BLOCKS* live_blocks = nullptr; // never destroyed
constinit std::mutex lock;
constinit std::atomic<bool> is_attached{false};
constinit char verdict_file[512] = {};

// How many events this thread is between `before` and `after` of. Static TLS: another model would allocate.
[[gnu::tls_model("initial-exec")]] constinit __thread unsigned depth = 0;

void check_allocation(std::uintptr_t block, long long size) {
    const std::lock_guard guard(lock);
    ++allocations;
    live_bytes += size;
    senseless += !live_blocks->insert_or_assign(block, size).second;
}

void check_free(std::uintptr_t block, long long size) {
    std::unique_lock guard(lock);
    ++frees;
    live_bytes -= size;
    if (const auto found = live_blocks->find(block); found != live_blocks->end()) {
        senseless += found->second != size;
        live_blocks->erase(found);
        return;
    }
    // A block from before the attach the tracker still has: it learns of this free behind us.
    guard.unlock();
    MEM_ADDRESS_TRACKER site;
    const bool is_known = mem_get_address_tracker(reinterpret_cast<void*>(block), site);
    guard.lock();
    senseless += !is_known;
}

void before(void* block, std::uint64_t, std::uint64_t allocated_size, bool is_allocation) {
    if (!is_attached.load(std::memory_order_relaxed) || depth++ != 0)
        return;
    (is_allocation ? check_allocation : check_free)(reinterpret_cast<std::uintptr_t>(block),
                                                    static_cast<long long>(allocated_size));
}

void after(void*, std::uint64_t, std::uint64_t, bool) {
    if (is_attached.load(std::memory_order_relaxed))
        --depth;
}

// No stream and no heap: the reports come right after this.
void give_verdict(void*) {
    if (!is_attached.exchange(false))
        return;
    const int descriptor = open(verdict_file, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    char text[100];
    const int length =
        std::snprintf(text, sizeof text, "%lld %lld %lld %lld", allocations, frees, live_bytes, senseless);
    if (write(descriptor, text, static_cast<std::size_t>(length)) == length)
        close(descriptor);
}

// Puts the two callbacks around the handler, which leaves the table and comes back between them.
void surround_handler() {
    constexpr auto EVERY_BIT = static_cast<MEM_TRACKING_GRANULARITY>(127);
    std::uint32_t mask = 0;
    for (std::uint32_t bit = 1; bit <= EVERY_BIT; bit <<= 1)
        if (mem_tracking_is_enabled(static_cast<MEM_TRACKING_GRANULARITY>(bit)))
            mask |= bit;
    mem_disable_tracking(EVERY_BIT);
    mem_add_callback_function(before);
    mem_enable_tracking(static_cast<MEM_TRACKING_GRANULARITY>(mask));
    mem_add_callback_function(after);
}

[[gnu::constructor]] void attach() {
    const char* const folder = std::getenv("VBX_TEST_VERDICTS");
    // Nothing of this may be in the figures of either side.
    mem_block_thread_tracking();
    live_blocks = new LIVE_BLOCKS;
    {
        const std::string name = std::string(program_invocation_short_name) + "." + std::to_string(getpid());
        std::snprintf(verdict_file, sizeof verdict_file, "%s/verdict.%s", folder, name.c_str());
        std::ofstream at_attach(std::string(folder) + "/at_attach." + name);
        mem_dump_tbb_fileline_tracking(at_attach);
    }
    surround_handler();
    // The child of a fork is not tracked.
    pthread_atfork(nullptr, nullptr, [] { is_attached = false; });
    __cxa_atexit(give_verdict, nullptr, nullptr);
    is_attached = true;
    mem_unblock_thread_tracking();
}

} // namespace
