// How the bytes of each tag move over the run, and which bin was current at each sample.
//
//     sample              0               1               2
//     current bin      Root   loading::parse   loading::parse
//     tag Root          640              640             640
//     tag loading         0             4096            8192
//
// Columns are tags, rows bear the name of a bin; a series of bytes a bin doesn't exist. A tag has a series
// from the first sample behind its first charge on.
#pragma once

#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker/records/series.h"
#include "vbx/mem/mem_tbb_tracker/timelines/timeline_section.h"

#include <cstdint>
#include <iosfwd>
#include <vector>

// The id of a bin as the timeline stores it. Larger ids are stored as the largest one, which then no longer
// tells which bin it was.
using PB_ID = std::uint16_t;

class MEM_BIN_TAG_TIMELINE {
  public:
    explicit MEM_BIN_TAG_TIMELINE(MEM_PB_STATS_TABLE& tags) : m_tags(tags) {}

    // Samples every tag, all at one moment. Any thread that is in no other lock. Throws std::bad_alloc; the
    // sample is then not taken in any series.
    void take_sample() MEM_EXCLUDES(section);

    // Empties the tags' table and forgets the samples of the tags, both before the next sample: one that came
    // in between would find series of tags that the table doesn't hold. The current bins stay, so the rows
    // from then on bear the names of the first bins of the process.
    void clear_tags() MEM_EXCLUDES(section);

    // The report; see mem_dump_tbb_profile_bin_tag_timeline_tracking. False when a stream has failed before.
    bool dump(std::ostream& plain, std::ostream& detailed) MEM_EXCLUDES(section);

    MEM_TIMELINE_SECTION section;

  private:
    MEM_PB_STATS_TABLE& m_tags;
    // Index = tag id; each holds m_sample_count samples.
    std::vector<MEM_SERIES> m_tag_series MEM_GUARDED_BY(section);
    // Since the start or the last clear_tags.
    std::uint64_t m_sample_count MEM_GUARDED_BY(section) = 0;
    MEM_RUNS<PB_ID> m_bins MEM_GUARDED_BY(section);
};

// From tracker start to teardown.
inline constinit MEM_BIN_TAG_TIMELINE* mem_bin_tag_timeline = nullptr;
