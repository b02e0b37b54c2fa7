#include "tests/fakes/fakes.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <malloc.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {
constinit std::atomic<tbbk_mem_tracker_callback> hook{nullptr};
constinit std::atomic<int> threads_inside{0};
constinit thread_local int own_depth = 0;

void fire(std::uint64_t block, std::uint64_t requested_size, std::uint64_t size, bool is_allocation) {
    threads_inside += own_depth++ == 0;
    if (const auto callback = hook.load())
        callback(reinterpret_cast<void*>(block), requested_size, size, is_allocation);
    threads_inside -= --own_depth == 0;
}
} // namespace

void fake_allocate(std::uint64_t block, std::uint64_t requested_size, std::uint64_t size) {
    fire(block, requested_size, size, true);
}
void fake_free(std::uint64_t block, std::uint64_t size) {
    fire(block, 0, size, false);
}
bool fake_hook_is_installed() {
    return hook != nullptr;
}

void tbbk_set_mem_tracker_callback(tbbk_mem_tracker_callback callback) noexcept {
    hook = callback;
}
bool tbbk_process_malloc_is_shim() noexcept {
    return true;
}
void tbbk_guard_forks() noexcept {}

bool tbbk_quiesce_begin(unsigned timeout_ms) noexcept {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (threads_inside != (own_depth > 0)) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::yield();
    }
    return true;
}
void tbbk_quiesce_end() noexcept {}

std::size_t _msize(void* block) noexcept {
    return malloc_usable_size(block);
}
