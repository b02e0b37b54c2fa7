// A series of samples of one figure.
#pragma once

#include "vbx/mem/mem_tbb_tracker/records/runs.h"

#include <cstdint>

using MEM_SERIES_RUN = MEM_RUN<std::int64_t>;

struct MEM_SERIES : MEM_RUNS<std::int64_t> {
    // For a series that begins later than its timeline. Throws std::bad_alloc, with nothing changed.
    void append_zeros(std::uint64_t count);
    // The largest sample; 0 of an empty series.
    std::int64_t max() const;
};

class MEM_SERIES_CURSOR {
  public:
    explicit MEM_SERIES_CURSOR(const MEM_SERIES& series) : m_samples(series.runs) {}

    // The sample that the cursor stands on, then on to the next one. Behind the last sample 0 for ever: a
    // series is shorter than its timeline when its figure was unknown for a while.
    std::int64_t next() {
        const MEM_SERIES_RUN* const run = m_samples.run();
        if (run == nullptr)
            return 0;
        const std::int64_t value = run->value;
        m_samples.advance();
        return value;
    }

  private:
    MEM_RUNS_CURSOR<std::int64_t> m_samples;
};
