#include "vbx/mem/mem_tbb_tracker/records/series.h"

void MEM_SERIES::append_zeros(std::uint64_t count) {
    if (count != 0)
        append(0, count);
}

std::int64_t MEM_SERIES::max() const {
    const auto largest = std::ranges::max_element(runs, {}, &MEM_SERIES_RUN::value);
    return largest != runs.end() ? largest->value : 0;
}
