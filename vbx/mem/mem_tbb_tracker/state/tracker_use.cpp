#include "vbx/mem/mem_tbb_tracker/state/tracker_use.h"

#include "vbx/mem/base/cache_line.h"
#include "vbx/mem/mem_tbb_tracker/state/granularity.h"
#include "vbx/platform/os/clock.h"
#include "vbx/platform/os/thread.h"

namespace {
// Events read what would lie beside it.
constinit MEM_ATOMIC_ON_OWN_LINE<std::uint32_t> uses{0};
} // namespace

// Counted before the look, and cleared before the count is looked at: of a use and a teardown that meet, one
// sees the other.
MEM_TRACKER_USE::MEM_TRACKER_USE() {
    uses.fetch_add(1);
    m_objects_exist = mem_tracker_objects_exist.load();
}

MEM_TRACKER_USE::~MEM_TRACKER_USE() {
    uses.fetch_sub(1);
}

void mem_end_tracker_use() {
    mem_tracker_objects_exist.store(false);
}

bool mem_tracker_uses_have_ended(unsigned timeout_ms) {
    const std::int64_t deadline = os_clock() + timeout_ms;
    OS_PATIENCE patience;
    while (uses.load() != 0) {
        if (os_clock() >= deadline)
            return false;
        patience.wait();
    }
    return true;
}

void mem_forget_tracker_uses() {
    uses.store(0);
}
