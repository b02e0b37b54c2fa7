// Fork: tbbmalloc has no fork handlers, and a child that inherits one of its locks from another thread spins
// for ever. So nobody else is inside the shim when the process forks.
//
// The handlers are registered as early as can be. Prepare handlers run in reverse order, so the gate closes
// behind those of everyone else, which may wait for threads that allocate; the two others run in order, so
// it is open again before any other handler allocates.
#include "vbx/platform/tbbamalloc/gate.h"
#include "vbx/platform/tbbamalloc/heap.h"
#include "vbx/platform/tbbamalloc/quiesce.h"
#include "vbx/platform/tbbamalloc/start.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"
#include "vbx/platform/tbbamalloc/thread_end.h"

#include <pthread.h>

namespace {

// A hook that blocks for longer than this delays no fork any further.
constexpr unsigned fork_timeout_ms = 2000;

constinit std::atomic<bool> is_started = false;

void before_fork() {
    tbbk_forks_under_way.fetch_add(1);
    tbbk_quiesce_begin(fork_timeout_ms);
}

void after_fork_in_parent() {
    tbbk_quiesce_end();
    tbbk_forks_under_way.fetch_sub(1);
}

void after_fork_in_child() {
    if (tbbk_quiesce_keep_only(tbbk_slot_own())) {
        tbbk_set_mem_tracker_callback(nullptr);
        tbbk_heap_abandon();
        tbbk_thread_end_forget_heap();
    }
    tbbk_quiesce_end();
    tbbk_forks_under_way.store(0);
}

// For a process that has not allocated until its constructors run.
__attribute__((constructor)) void start_at_load() {
    tbbk_start();
}

} // namespace

void tbbk_start() noexcept {
    if (is_started.load(std::memory_order_relaxed) || is_started.exchange(true))
        return;
    tbbk_gate_register_fences();
    tbbk_thread_end_start();
    pthread_atfork(before_fork, after_fork_in_parent, after_fork_in_child);
}

void tbbk_guard_forks() noexcept {
    tbbk_start();
}
