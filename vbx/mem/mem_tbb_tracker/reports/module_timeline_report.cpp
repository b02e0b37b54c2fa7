// The rows of the module timeline, named by the labels that the host has set.

#include "vbx/mem/base/long_operation.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/mem_tbb_tracker/reports/timeline_report.h"
#include "vbx/mem/mem_tbb_tracker/state/tracker_use.h"
#include "vbx/mem/mem_tbb_tracker/timelines/module_timeline.h"
#include "vbx/mem/out_of_memory/host_call.h"

#include <vbx/mem/timelines.h>

namespace {

class LABELS_OF_HOST final : public MEM_ROW_LABELS {
  public:
    explicit LABELS_OF_HOST(const MEM_RUNS<std::string>& labels) : m_cursor(labels.runs) {}

    // With another thread between its two samples a row can still be without its label.
    std::string_view current() override {
        const auto* const run = m_cursor.run();
        return run == nullptr || run->value.empty() ? "Other" : std::string_view(run->value);
    }
    void advance() override { m_cursor.advance(); }

  private:
    MEM_RUNS_CURSOR<std::string> m_cursor;
};

} // namespace

bool MEM_MODULE_TIMELINE::dump(const SERIES_BY_MODULE& selection, const MEM_LABEL_TIMELINE& labels,
                               std::ostream& plain, std::ostream& detailed) const {
    std::vector<MEM_TIMELINE_COLUMN> columns;
    columns.reserve(selection.size());
    for (const auto& [name, series] : selection)
        columns.push_back({name, &series});
    LABELS_OF_HOST row_labels(labels.labels());
    return mem_write_timeline(plain, detailed, columns, sample_count, row_labels);
}

bool mem_dump_tbb_module_tracking(std::ostream& plain, std::ostream& detailed) try {
    const MEM_LONG_OPERATION operation;
    const MEM_TRACKER_USE use;
    if (!use)
        return false;
    const MEM_BLOCK_SCOPE own_heap_use;
    const MEM_TIMELINE_GUARD section(mem_module_timeline->section);
    const MEM_SPIN_GUARD labels(mem_label_timeline->lock);
    return mem_module_timeline->dump(mem_module_timeline->bytes_series, *mem_label_timeline, plain, detailed);
} catch (const std::bad_alloc&) {
    mem_fail_host_call();
}
