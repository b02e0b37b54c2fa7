#include "vbx/mem/mem_tbb_tracker/records/series.h"

#include <algorithm>

namespace {

// A timeline appends once to each of its series, and some times to one that several names share.
constexpr std::size_t SPARE_RUNS = 4;

void append_run(MEM_SERIES& series, MEM_SERIES_RUN run) {
    if (!series.runs.empty() && series.runs.back().value == run.value)
        series.runs.back().count += run.count;
    else
        series.runs.push_back(run);
    series.num_samples += run.count;
}

} // namespace

void MEM_SERIES::make_room() {
    // Doubling by hand: reserve alone may give just what is asked for, which would move the runs every time.
    if (runs.capacity() - runs.size() < SPARE_RUNS)
        runs.reserve(std::max(2 * runs.size(), runs.size() + SPARE_RUNS));
}

void MEM_SERIES::append(std::int64_t value) {
    append_run(*this, {value, 1});
}

void MEM_SERIES::append_zeros(std::uint64_t count) {
    if (count != 0)
        append_run(*this, {0, count});
}

std::int64_t MEM_SERIES::max() const {
    const auto largest = std::ranges::max_element(runs, {}, &MEM_SERIES_RUN::value);
    return largest != runs.end() ? largest->value : 0;
}
