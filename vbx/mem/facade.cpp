#include "vbx/mem/base/library_lock.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <vbx/mem/facade.h>
#include <vbx/mem/stats.h>

#include <atomic>

namespace {
constinit std::atomic<bool> manager_is_initialised{false};
constinit MEM_SEGMENT default_segment;
} // namespace

constinit MEM_MANAGER mem_manager;

// A manager that was initialised once makes no second lock: after the teardown the lock's operations only
// count, which is what code that runs as late as that expects.
void MEM_MANAGER::initialize() {
    if (!manager_is_initialised.exchange(true) && !mem_library_lock.exists())
        mem_library_lock.create();
}

MEM_MANAGER& MEM_MANAGER::operator=(const MEM_MANAGER&) {
    return *this;
}
MEM_MANAGER& MEM_MANAGER::operator=(MEM_MANAGER&&) noexcept {
    return *this;
}

std::uint64_t MEM_MANAGER::current_total_memory() {
    return static_cast<std::uint64_t>(mem_get_global_current().bytes.load());
}
std::uint64_t MEM_MANAGER::peak_total_memory() {
    return static_cast<std::uint64_t>(mem_get_global_peak().bytes.load());
}
std::uint64_t MEM_MANAGER::msize(void* block) {
    return _msize(block);
}
void MEM_MANAGER::check_memory_guards() {}
MEM_SEGMENT* MEM_MANAGER::get_default_segment() {
    return &default_segment;
}

MEM_SEGMENT& MEM_SEGMENT::operator=(const MEM_SEGMENT&) {
    return *this;
}
MEM_SEGMENT& MEM_SEGMENT::operator=(MEM_SEGMENT&&) noexcept {
    return *this;
}
int MEM_SEGMENT::get_id() const {
    return 1;
}
void MEM_SEGMENT::check_memory_guards() const {}
void MEM_SEGMENT::dump(std::ofstream&) const {}
void MEM_SEGMENT::dump(std::ofstream&, int) const {}
void MEM_SEGMENT::dump(const char*) const {}
void MEM_SEGMENT::dump(const char*, int) const {}

MEM_MRC_CLASS__::MEM_MRC_CLASS__() : m_count(0) {}
MEM_MRC_CLASS__::MEM_MRC_CLASS__(const MEM_MRC_CLASS__&) : m_count(0) {}
MEM_MRC_CLASS__& MEM_MRC_CLASS__::operator=(const MEM_MRC_CLASS__&) {
    return *this;
}

bool mem_is_allocated(void*) {
    return true;
}
