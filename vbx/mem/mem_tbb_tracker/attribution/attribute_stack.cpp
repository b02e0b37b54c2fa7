#include "vbx/mem/mem_tbb_tracker/attribution/attribute_stack.h"

#include "vbx/mem/base/check.h"
#include "vbx/mem/mem_tbb_tracker/attribution/frame_filter.h"
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
MEM_ADDRESS_TRACKER& describe_and_insert(std::uint64_t address) MEM_REQUIRES(mem_site_lock) {
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

MEM_CAPTURED_STACK mem_capture_stack() {
    MEM_CAPTURED_STACK stack;
    stack.count = mem_tbb_unwinder->capture_stack(stack.frames, MEM_CAPTURE_FRAMES, 0, 0);
    return stack;
}

MEM_ADDRESS_TRACKER& mem_attribute_stack(const std::uint64_t* frames, std::int32_t count) {
    MEM_CHECK(mem_tbb_tracker_is_inited());
    for (std::int32_t index = 0; index < count; ++index) {
        MEM_ADDRESS_TRACKER* site = mem_tbb_site_table->find(frames[index]);
        if (site == nullptr)
            site = &describe_and_insert(frames[index]);
        if (!site->filtered)
            return *site;
    }
    return mem_tbb_site_table->catch_all();
}

MEM_ADDRESS_TRACKER& mem_attribute_allocation(const MEM_CAPTURED_STACK& stack) {
    MEM_ADDRESS_TRACKER& site = mem_attribute_stack(stack.frames, stack.count);
    if (stack.count != MEM_CAPTURE_FRAMES || &site != &mem_tbb_site_table->catch_all())
        return site;
    std::uint64_t deep_frames[MEM_DEEP_CAPTURE_FRAMES];
    std::int32_t count;
    {
        const MEM_SPIN_UNGUARD unguard(mem_site_lock);
        count = mem_tbb_unwinder->capture_stack(deep_frames, MEM_DEEP_CAPTURE_FRAMES, MEM_CAPTURE_FRAMES, 0);
    }
    return mem_attribute_stack(deep_frames, count);
}
