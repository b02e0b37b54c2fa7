#include "vbx/mem/base/long_operation.h"

#include "vbx/platform/os/critical_section.h"

namespace {

// Recursive: the shutdown calls reports.
constinit OS_CRITICAL_SECTION section;

constexpr unsigned LONGEST_WAIT_MS = 5000;

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
