// The text of a timeline: one row a sample, one column a series. It has no policy of its own; what the series
// and the labels of the rows are is its callers' business.
//
//     plain       Misc | the 18 series with the largest maxima, largest last
//     detailed         | every series, in the order in which they are given
//
// Series stay in their runs and are walked row by row, so the memory needed grows with the number of series
// and not with that of samples.
#pragma once

#include "vbx/mem/mem_tbb_tracker/records/series.h"

#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

// What stands in the first cell of the rows.
class MEM_ROW_LABELS {
  public:
    // The label of the row that comes next.
    virtual std::string_view current() = 0;
    // Called once a row, when it has been written.
    virtual void advance() = 0;

  protected:
    ~MEM_ROW_LABELS() = default;
};

struct MEM_TIMELINE_COLUMN {
    std::string name;
    const MEM_SERIES* series;
};

// Writes both outputs, cell by cell in one fixed order, so that they may be one stream. Figures are inserted
// into the streams as they are set up. False, with nothing written, when either stream has failed before;
// what becomes of them later is not looked at. Throws std::bad_alloc, and what the streams are set up to
// throw.
bool mem_write_timeline(std::ostream& plain, std::ostream& detailed,
                        const std::vector<MEM_TIMELINE_COLUMN>& columns, std::uint64_t num_rows,
                        MEM_ROW_LABELS& labels);
