// The names of the rows of the bin-tag timeline: the bins that were current.
#pragma once

#include "vbx/mem/mem_tbb_tracker/reports/timeline_report.h"
#include "vbx/mem/mem_tbb_tracker/timelines/bin_tag_timeline.h"

#include <string>
#include <string_view>

// A timeline has a bin for each of its samples, so there are always as many as rows. If that should ever not
// hold, rows without a bin are named "BinIterError" and standard error gets a text for each of them; the
// figures are written all the same.
class MEM_BIN_ROW_LABELS final : public MEM_ROW_LABELS {
  public:
    // bins  walked from the start; stay as they are meanwhile
    explicit MEM_BIN_ROW_LABELS(const MEM_RUNS<PB_ID>& bins);
    std::string_view current() override;
    void advance() override;

  private:
    void look_up();

    MEM_RUNS_CURSOR<PB_ID> m_cursor;
    const MEM_RUN<PB_ID>* m_run = nullptr;
    std::string m_name; // of the run: copied once a run and not once a row
};
