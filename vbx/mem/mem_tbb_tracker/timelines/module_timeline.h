// How the memory of each module moves over the run.
//
//     sample              0    1    2    3
//     parser, bytes     512  512  768  768
//     engine, bytes       0    0   64   32     first seen at sample 2
//
// Each sample adds one figure to every series of a module that the module map holds. A series that begins
// late starts with zeros, so all series of a run line up, unless a reset has emptied the module map: a module
// is not sampled then until it is charged again, and its series goes on where it stopped.
#pragma once

#include "vbx/mem/mem_tbb_tracker/records/module_map.h"
#include "vbx/mem/mem_tbb_tracker/records/series.h"
#include "vbx/mem/mem_tbb_tracker/timelines/label_timeline.h"
#include "vbx/mem/mem_tbb_tracker/timelines/timeline_section.h"

#include <cstdint>
#include <iosfwd>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// Without regard to the case of ASCII letters, whatever the locale. Bytes above 127 come first. Modules whose
// names differ only in case share a series, under the name that was sampled first.
struct MEM_CASE_BLIND_LESS {
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const;
};

class MEM_MODULE_TIMELINE {
  public:
    using SERIES_BY_MODULE = std::map<std::string, MEM_SERIES, MEM_CASE_BLIND_LESS>;

    explicit MEM_MODULE_TIMELINE(const MEM_MODULE_MAP& modules) : m_modules(modules) {}

    // Samples every module. Any thread, inside the gate or outside. Throws std::bad_alloc; the sample is then
    // not taken in any series.
    void take_sample() MEM_EXCLUDES(section, mem_module_lock);

    // The largest sampled bytes of a module; none if it was never sampled.
    std::optional<std::int64_t> highest_bytes(std::string_view module) const MEM_REQUIRES(section);

    // One report, of either map; see mem_dump_tbb_module_tracking. False when a stream has failed before.
    bool dump(const SERIES_BY_MODULE& selection, const MEM_LABEL_TIMELINE& labels, std::ostream& plain,
              std::ostream& detailed) const MEM_REQUIRES(section, labels.lock);

    MEM_TIMELINE_SECTION section;
    SERIES_BY_MODULE bytes_series MEM_GUARDED_BY(section);
    SERIES_BY_MODULE cumulative_blocks_series MEM_GUARDED_BY(section);
    std::uint64_t sample_count MEM_GUARDED_BY(section) = 0;

  private:
    struct FIGURE {
        MEM_SERIES* series;
        std::int64_t value;
    };
    void collect(SERIES_BY_MODULE& map, const std::string& module, std::int64_t value) MEM_REQUIRES(section);

    const MEM_MODULE_MAP& m_modules;
    // The figures of one sample, before they go into their series. Kept for its memory.
    std::vector<FIGURE> m_figures MEM_GUARDED_BY(section);
};

// From tracker start to teardown.
inline constinit MEM_MODULE_TIMELINE* mem_module_timeline = nullptr;
