// The opening and closing of profile bins.
//
// These run on a host's thread like any other code of the host: what they allocate is tracked, and charged to
// the bin that is current at that moment. So no lock is held here, and the stacks are whole whenever
// something allocates.

#include "vbx/mem/base/check.h"
#include "vbx/mem/base/long_operation.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker/state/granularity.h"
#include "vbx/mem/mem_tbb_tracker/state/switches.h"
#include "vbx/mem/mem_tbb_tracker/state/tracker_use.h"
#include "vbx/mem/mem_tbb_tracker_profile_bins/profile_bins.h"
#include "vbx/mem/out_of_memory/host_call.h"

#include <vbx/mem/peaks.h>
#include <vbx/mem/profile_bins.h>
#include <vbx/mem/timelines.h>

#include <new>

namespace {

bool moves_label(const MEM_TIMELINE_LABELS& labels, const std::string& tag) {
    return labels.enabled && !tag.empty() && mem_tracking_is_enabled(MEM_GRANULARITY_PER_LIBRARY);
}

void push_label(MEM_TIMELINE_LABELS& labels, const std::string& tag) {
    if (!moves_label(labels, tag))
        return;
    labels.stack.push_back(tag);
    mem_set_timeline_label(tag);
}

// A label that the host has set by hand meanwhile is overwritten.
void set_innermost_label(const MEM_TIMELINE_LABELS& labels) noexcept {
    try {
        mem_set_timeline_label(labels.stack.empty() ? std::string() : labels.stack.back());
    } catch (const std::bad_alloc&) {
        // The samples keep the label that they have; a close can't be left half done.
    }
}

void pop_label(MEM_TIMELINE_LABELS& labels, const std::string& tag) {
    if (!moves_label(labels, tag))
        return;
    if (!labels.stack.empty() && labels.stack.back() == tag)
        labels.stack.pop_back();
    set_innermost_label(labels);
}

void push_frame(MEM_PROFILE_BINS& bins) {
    MEM_PB_FRAME& frame = bins.stack.emplace_front();
    frame.bytes_at_open = mem_get_global_current().bytes.load();
    frame.saved_local_peak = mem_enter_local_region();
}

void undo_region(MEM_PROFILE_BINS& bins, std::size_t labels_before) noexcept {
    if (bins.labels.stack.size() != labels_before) {
        bins.labels.stack.pop_back();
        set_innermost_label(bins.labels);
    }
    mem_exit_local_region(bins.stack.front().saved_local_peak);
    bins.stack.pop_front();
}

// The statistics get their room before any event can see the id, so that charging it needs no memory. After
// the teardown there are no statistics, and no events either.
void open_with_room(MEM_PB_TABLE& names, MEM_PB_STATS_TABLE* stats, std::string_view name) {
    const std::uint32_t id = names.find_or_add(name);
    if (const MEM_TRACKER_USE use; use && !stats->has_room_for(id)) {
        const MEM_SHORT_OPERATION operation;
        stats->make_room_for(id);
    }
    names.push(id);
}

void open_bin_and_tag(MEM_PROFILE_BINS& bins, const std::string& name, const std::string& tag) {
    MEM_PB_TABLE& tags = bins.m_tags();
    if (!tag.empty())
        open_with_room(tags, ptag_stats, tag);
    try {
        open_with_room(bins.m_bins(), pbin_stats, tags.get_curr_name() + "::" + name);
    } catch (...) {
        if (!tag.empty())
            tags.pop();
        throw;
    }
}

MEM_PROFILE_BIN_FIGURES close_region(MEM_PROFILE_BINS& bins, const std::string& tag) {
    auto& stack = bins.stack;
    MEM_CHECK(!stack.empty());
    const auto figure = [](long long bytes) { return static_cast<std::uint64_t>(bytes); };
    // The frame is freed last: its bytes are in the figure at the open as well.
    const MEM_PROFILE_BIN_FIGURES figures{figure(stack.front().bytes_at_open),
                                          figure(mem_get_global_current().bytes.load()),
                                          figure(mem_get_local_peak().bytes.load())};
    mem_exit_local_region(stack.front().saved_local_peak);
    pop_label(bins.labels, tag);
    stack.pop_front();
    return figures;
}

void close_bin_and_tag(MEM_PROFILE_BINS& bins, const std::string& tag) {
    if (!tag.empty())
        bins.m_tags().close(tag);
    bins.m_bins().pop();
}

} // namespace

void mem_open_profile_bin(const std::string& name, const std::string& tag) try {
    const bool opens_region = mem_memory_tracking_flag;
    const bool opens_bin = mem_bin_tag_tracking_flag;
    if (!opens_region && !opens_bin)
        return;
    MEM_PROFILE_BINS& bins = MEM_PROFILE_BINS::get_instance();
    const std::size_t labels_before = bins.labels.stack.size();
    if (opens_region)
        push_frame(bins);
    try {
        if (opens_region)
            push_label(bins.labels, tag);
        if (opens_bin)
            open_bin_and_tag(bins, name, tag);
    } catch (...) {
        if (opens_region)
            undo_region(bins, labels_before);
        throw;
    }
} catch (const std::bad_alloc&) {
    mem_fail_host_call();
}

void mem_close_profile_bin(const std::string& tag, std::uint64_t* bytes_at_open,
                           std::uint64_t* bytes_at_close, std::uint64_t* local_peak_bytes) {
    MEM_PROFILE_BIN_FIGURES figures;
    if (mem_memory_tracking_flag)
        figures = close_region(MEM_PROFILE_BINS::get_instance(), tag);
    *bytes_at_open = figures.bytes_at_open;
    *bytes_at_close = figures.bytes_at_close;
    *local_peak_bytes = figures.local_peak_bytes;
    if (mem_bin_tag_tracking_flag)
        close_bin_and_tag(MEM_PROFILE_BINS::get_instance(), tag);
}

void mem_disable_profile_bin_tag_timeline_labels() {
    MEM_TIMELINE_LABELS& labels = MEM_PROFILE_BINS::get_instance().labels;
    labels.stack = std::vector<std::string>(); // an empty list would keep the storage
    labels.enabled = false;
}
