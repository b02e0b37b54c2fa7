#include "vbx/mem/mem_tbb_tracker/attribution/attribute_stack.h"

#include "vbx/mem/base/check.h"
#include "vbx/mem/mem_tbb_tracker/attribution/frame_filter.h"
#include "vbx/mem/mem_tbb_tracker/attribution/known_frames.h"
#include "vbx/mem/mem_tbb_tracker/attribution/resolve.h"
#include "vbx/mem/mem_tbb_tracker/state/granularity.h"
#include "vbx/platform/vbx_err/vbx_err.h"

#include <cstring>

namespace {

// Set at tracker start, never cleared.
constinit bool incomplete_fileline_info_is_accepted = false;

MEM_ADDRESS_TRACKER describe(std::uint64_t address) MEM_EXCLUDES(mem_site_lock) {
    MEM_ADDRESS_TRACKER record;
    record.address = address;
    if (address != 0)
        mem_resolve_address(record);
    if (incomplete_fileline_info_is_accepted && record.file_name[0] == '\0')
        std::strcpy(record.file_name, "Unknown");
    record.filtered = mem_frame_is_filtered(record);
    return record;
}

// Two threads that meet one address at the same time both describe it; the first to insert wins.
MEM_SITE& describe_and_insert(std::uint64_t address) MEM_REQUIRES(mem_site_lock) {
    MEM_ADDRESS_TRACKER record;
    {
        const MEM_SPIN_UNGUARD unguard(mem_site_lock);
        record = describe(address);
    }
    return mem_tbb_site_table->insert(record);
}

} // namespace

void mem_accept_incomplete_fileline_info() {
    incomplete_fileline_info_is_accepted = true;
}

namespace {

// The frames behind the count are left as they are: nobody reads them, and clearing 50 words shows.
void capture(MEM_CAPTURED_STACK& stack, std::int32_t capacity, std::int32_t skip) {
    stack.capacity = capacity;
    stack.count = mem_tbb_unwinder->capture_stack(stack.frames, capacity, skip, 0);
}

} // namespace

MEM_CAPTURED_STACK mem_capture_stack() {
    MEM_CAPTURED_STACK stack;
    capture(stack, MEM_CAPTURE_FRAMES, 0);
    return stack;
}

MEM_CAPTURED_STACK mem_capture_deeper_stack() {
    MEM_CAPTURED_STACK stack;
    capture(stack, MEM_DEEP_CAPTURE_FRAMES, MEM_CAPTURE_FRAMES);
    return stack;
}

bool mem_stack_goes_on(const MEM_CAPTURED_STACK& stack) {
    return stack.capacity == MEM_CAPTURE_FRAMES && stack.count == MEM_CAPTURE_FRAMES;
}

MEM_SITE& mem_attribute_stack(const std::uint64_t* frames, std::int32_t count) {
    MEM_CHECK(mem_tbb_tracker_is_inited());
    for (std::int32_t index = 0; index < count; ++index) {
        MEM_SITE* site = mem_tbb_site_table->find(frames[index]);
        if (site == nullptr)
            site = &describe_and_insert(frames[index]);
        mem_remember_frame(*site);
        if (!site->filtered)
            return *site;
    }
    return mem_tbb_site_table->catch_all();
}
