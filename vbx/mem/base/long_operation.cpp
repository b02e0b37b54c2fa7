#include "vbx/mem/base/long_operation.h"

#include "vbx/mem/base/thread_state.h"
#include "vbx/platform/os/critical_section.h"

namespace {

// Recursive: the shutdown calls reports.
constinit OS_CRITICAL_SECTION section;

constexpr unsigned LONGEST_WAIT_MS = 5000;
constexpr unsigned SHORT_WAIT_MS = 100;

// Of the forking thread; read behind the fork by the same thread.
constinit __thread bool is_held_for_fork = false;

} // namespace

MEM_LONG_OPERATION::MEM_LONG_OPERATION() : m_may_begin(true) {
    section.enter();
}
MEM_LONG_OPERATION::MEM_LONG_OPERATION(unsigned timeout_ms) : m_may_begin(section.enter_within(timeout_ms)) {}
MEM_LONG_OPERATION::~MEM_LONG_OPERATION() {
    if (m_may_begin)
        section.leave();
}

// From inside of the library, in a signal handler, a thread can't wait for a turn at all.
MEM_SHORT_OPERATION::MEM_SHORT_OPERATION()
    : m_operation(mem_thread_is_inside_library() ? 0 : SHORT_WAIT_MS) {}

void mem_hold_long_operations() {
    is_held_for_fork = section.enter_within(LONGEST_WAIT_MS);
}

void mem_release_long_operations() {
    if (is_held_for_fork)
        section.leave();
    is_held_for_fork = false;
}

void mem_reset_long_operations_after_fork() {
    is_held_for_fork = false;
    section.reset_after_fork();
}
