// What the host says it is doing: the bins and tags that it has open.
//
//     tags   Root > loading                            open("parse", "loading"), open("lex", "")
//     bins   Root > loading::parse > loading::lex
//
// A tag is a coarse category, a bin a phase inside the tag that was current when it opened. There is one
// current bin and one current tag for the whole process; every block is charged to both.
#pragma once

#include "vbx/mem/mem_tbb_tracker_profile_bins/pb_table.h"

#include <vbx/mem/stats.h>

#include <atomic>
#include <cstdint>
#include <forward_list>
#include <string>
#include <vector>

// What a close needs to know of its open, for the measuring of regions.
struct MEM_PB_FRAME {
    std::int64_t bytes_at_open = 0;
    MEM_BASE_STATS saved_local_peak;
};

// The open tags that drive the label of the timelines, newest at the back.
struct MEM_TIMELINE_LABELS {
    std::vector<std::string> stack;
    bool enabled = true; // once off it stays off
};

class MEM_PROFILE_BINS {
  public:
    // Made at the first call, which the tracker's start makes, and never freed: bins, tags and their ids
    // outlive resets and the shutdown. Any thread; lock-free once it is there. Throws std::bad_alloc.
    static MEM_PROFILE_BINS& get_instance() {
        MEM_PROFILE_BINS* const instance = s_instance.load(std::memory_order_acquire);
        return instance != nullptr ? *instance : make_instance();
    }

    // Two tables with id spaces of their own.
    MEM_PB_TABLE& m_tags() { return m_tag_table; }
    MEM_PB_TABLE& m_bins() { return m_bin_table; }

    // For the one thread that opens and closes.
    std::forward_list<MEM_PB_FRAME> stack; // newest in front
    MEM_TIMELINE_LABELS labels;

  private:
    MEM_PROFILE_BINS() = default;
    static MEM_PROFILE_BINS& make_instance();

    MEM_PB_TABLE m_tag_table;
    MEM_PB_TABLE m_bin_table;

    static constinit std::atomic<MEM_PROFILE_BINS*> s_instance;
};
