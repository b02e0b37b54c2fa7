#include "vbx/mem/host/preload_seam.h"
#include "vbx/mem/out_of_memory/out_of_memory.h"
#include "vbx/mem/out_of_memory/reserves.h"
#include "vbx/mem/out_of_memory/set_up.h"
#include "vbx/platform/vbx_thr/vbx_thr.h"

namespace {

constinit THR_THREAD_FUNCTION next_thread_wrapper = nullptr;

bool is_preloaded() {
    return mem_preload_print != nullptr;
}

bool allocate_reserves_locked() {
    const MEM_LIBRARY_GUARD guard;
    return mem_allocate_reserves();
}

// The end runs also when the thread leaves by pthread_exit or is cancelled.
class THREAD_RESERVES {
  public:
    THREAD_RESERVES() { mem_provide_reserves(); }
    ~THREAD_RESERVES() {
        const MEM_LIBRARY_GUARD guard;
        mem_release_reserves();
    }
    THREAD_RESERVES(const THREAD_RESERVES&) = delete;
    THREAD_RESERVES& operator=(const THREAD_RESERVES&) = delete;
};

// A program that knows nothing of the library may survive a failed allocation, with threads or without.
void set_thread_up() {
    if (is_preloaded() && !mem_out_of_memory_end_is_asked_for())
        return;
    mem_install_out_of_memory_end();
    mem_warm_up_last_steps();
}

} // namespace

void mem_provide_reserves() {
    if (mem_memory_is_exhausted() || allocate_reserves_locked())
        return;
    // With the lock given up: another thread may be at the last steps, and waiting for it.
    if (!is_preloaded() || mem_out_of_memory_end_is_asked_for())
        mem_out_of_memory();
}

std::uint64_t mem_thread_wrapper(std::uint64_t start, std::uint64_t argument) {
    const THREAD_RESERVES reserves;
    set_thread_up();
    return next_thread_wrapper(start, argument);
}

void mem_install_thread_wrapper() {
    thr_thread_set_next_wrapper_func(mem_thread_wrapper, &next_thread_wrapper);
}
