#include "vbx/mem/base/library_lock.h"

#include "vbx/platform/os/critical_section.h"

#include <atomic>
#include <cstdint>

namespace {
constinit OS_CRITICAL_SECTION section;
constinit std::atomic<bool> section_exists{false};
constinit std::atomic<std::uint32_t> depth{0};
constinit bool is_being_destroyed = false;
} // namespace

// The rank check leaves this lock out: it is recursive, and it is the outermost one.

void MEM_LIBRARY_LOCK::create() {
    depth.store(0, std::memory_order_relaxed);
    section_exists.store(true, std::memory_order_release);
}

bool MEM_LIBRARY_LOCK::exists() const {
    return section_exists.load(std::memory_order_acquire);
}

void MEM_LIBRARY_LOCK::enter() MEM_NO_THREAD_SAFETY_ANALYSIS {
    if (exists()) {
        section.enter();
        // Who has waited while it was done away with hands it on to the next that waits.
        if (!exists())
            section.leave();
    }
    depth.fetch_add(1, std::memory_order_relaxed);
}

namespace {
void leave_level(bool has_section) {
    if (depth.load(std::memory_order_relaxed) == 0)
        return;
    depth.fetch_sub(1, std::memory_order_relaxed);
    if (has_section)
        section.leave();
}
} // namespace

void MEM_LIBRARY_LOCK::leave() MEM_NO_THREAD_SAFETY_ANALYSIS {
    leave_level(exists());
}

void MEM_LIBRARY_LOCK::destroy() MEM_NO_THREAD_SAFETY_ANALYSIS {
    if (is_being_destroyed)
        return;
    is_being_destroyed = true;
    // First of all: who gets the section from here on sees that it is gone. The object itself is never freed.
    leave_level(section_exists.exchange(false));
    is_being_destroyed = false;
}

void MEM_LIBRARY_LOCK::reset_after_fork() {
    section.reset_after_fork();
    depth.store(0, std::memory_order_relaxed);
}
