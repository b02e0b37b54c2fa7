#include "vbx/mem/out_of_memory/out_of_memory.h"

#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/host/host_slots.h"
#include "vbx/mem/host/memory_source.h"
#include "vbx/mem/host/messages.h"
#include "vbx/mem/host/preload_seam.h"
#include "vbx/mem/out_of_memory/reserves.h"
#include "vbx/mem/out_of_memory/set_up.h"
#include "vbx/platform/os/clock.h"
#include "vbx/platform/os/stream_lock.h"
#include "vbx/platform/os/thread.h"
#include "vbx/platform/os/write.h"

#include <vbx/mem/info.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace {

// Threads are named by the place of their words: those stay the same in a forked child.
constinit std::atomic<const void*> first_thread{nullptr};
constinit std::atomic<bool> last_steps_are_done{false};
constinit std::atomic<const void*> exiting_thread{nullptr};

// How long a thread waits for the exit of another one that has begun it, and for a thread that can begin it.
// Longer than any report takes. A host's exit handler may want a lock that a thread holds which is out of
// memory too, and then the exit would never come to its end.
constexpr std::int64_t LONGEST_WAIT_FOR_END_MS = 120'000;

// Another thread may be waiting for the end right here, inside of a print, with the stream's lock.
void flush_if_free(std::FILE* stream) {
    if (!os_lock_stream(stream, 20))
        return;
    fflush_unlocked(stream);
    funlockfile(stream);
}

// A host's configuration callback is asked on the way and may need memory that is no longer there.
int peak_megabytes() {
    constexpr std::uint64_t MEGABYTE = 1'000'000;
    try {
        const MEM_BLOCK_SCOPE last_steps(MEM_BLOCKED_BY_LAST_STEPS);
        return static_cast<int>(mem_peak_virtual_used_at_end() / MEGABYTE);
    } catch (...) {
        return static_cast<int>(mem_raise_peak_address_space() / MEGABYTE);
    }
}

void print_standard_message() {
    constexpr const char* FORMAT = "\nOut of memory (%d megabytes used)\n";
    if (mem_preload_print != nullptr) {
        mem_print_stdout(FORMAT, peak_megabytes());
        return;
    }
    const OS_NO_WRITE_SIGNALS no_signals;
    flush_if_free(stdout);
    flush_if_free(stderr);
    char line[64];
    const int length = std::snprintf(line, sizeof line, FORMAT, peak_megabytes());
    // Past the stream: it may be locked, and wide.
    os_write(fileno(stderr), line, static_cast<std::size_t>(std::max(length, 0)));
}

void release_reserves_locked() {
    const MEM_LIBRARY_GUARD guard;
    mem_release_reserves();
}

// Without the library lock: a handler may wait for the host's threads to end, and they take it at their end.
void take_last_steps() {
    release_reserves_locked();
    if (const MEM_OUT_OF_MEMORY_HANDLER handler = mem_load_slot(mem_host_slots.out_of_memory))
        handler();
    else
        print_standard_message();
}

// A stream that no other thread holds now.
bool is_free(std::FILE* stream) {
    if (!os_lock_stream(stream, 1))
        return false;
    funlockfile(stream);
    return true;
}

bool claim_exit(const void* self) {
    const void* none = nullptr;
    return is_free(stdout) && is_free(stderr) && exiting_thread.compare_exchange_strong(none, self);
}

// One thread alone calls exit(): two of them inside it would lose the reports. It need not be the first. An
// exit locks the standard streams to flush them, and a thread that ran out of memory in the middle of a print
// holds one: then only that thread can go through with it.
[[noreturn]] void exit_or_wait(const void* self) {
    OS_PATIENCE patience;
    // A handler may take its time.
    while (!last_steps_are_done.load(std::memory_order_acquire))
        patience.wait();
    const std::int64_t deadline = os_clock() + LONGEST_WAIT_FOR_END_MS;
    while (os_clock() < deadline) {
        if (claim_exit(self))
            std::exit(EXIT_FAILURE);
        patience.wait();
    }
    _exit(EXIT_FAILURE);
}

// Also when the handler leaves by an exception or ends its thread: the next one to come then exits.
class LAST_STEPS {
  public:
    LAST_STEPS() = default;
    ~LAST_STEPS() { last_steps_are_done.store(true, std::memory_order_release); }
    LAST_STEPS(const LAST_STEPS&) = delete;
    LAST_STEPS& operator=(const LAST_STEPS&) = delete;
};

} // namespace

bool mem_memory_is_exhausted() {
    return first_thread.load(std::memory_order_relaxed) != nullptr;
}

void mem_out_of_memory() {
    // An allocation is no cancellation point; flushing a stream would be one.
    const OS_NO_CANCELLATION no_cancellation;
    const void* const self = &mem_thread_state;
    const void* first = nullptr;
    if (first_thread.compare_exchange_strong(first, self)) {
        const LAST_STEPS last_steps;
        take_last_steps();
    } else {
        // Again on a thread that is inside the handler, or inside what exit() runs.
        const void* none = nullptr;
        if (first == self)
            exiting_thread.compare_exchange_strong(none, self);
        if (exiting_thread.load() == self)
            std::exit(EXIT_FAILURE);
    }
    exit_or_wait(self);
}

void mem_leave_last_steps_to_the_parent() {
    const void* const self = &mem_thread_state;
    const void* const first = first_thread.load(std::memory_order_relaxed);
    if (first != nullptr && first != self)
        last_steps_are_done.store(true, std::memory_order_relaxed);
    if (exiting_thread.load(std::memory_order_relaxed) != self)
        exiting_thread.store(nullptr, std::memory_order_relaxed);
}

void mem_set_out_of_memory_handler(MEM_OUT_OF_MEMORY_HANDLER handler) {
    mem_ask_for_out_of_memory_end();
    mem_store_slot(mem_host_slots.out_of_memory, handler);
    mem_warm_up_last_steps();
}
