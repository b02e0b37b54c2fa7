// A series of samples of one quantity, stored by runs of equal values.
//
//     samples   0 0 0 0 512 512 0 ...
//     runs      {0, 4}  {512, 2}  {0, 1}
//
// Neighbouring runs differ in value; the counts add up to num_samples. A quantity that stands still costs one
// increment a sample, and nothing is ever thinned or dropped.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

struct MEM_SERIES_RUN {
    std::int64_t value;
    std::uint64_t count; // consecutive samples of this value, never 0
};

struct MEM_SERIES {
    std::vector<MEM_SERIES_RUN> runs;
    std::uint64_t num_samples = 0;

    // Makes room, so that the next few appends can't fail. Throws std::bad_alloc, with nothing changed.
    void make_room();
    // Throws std::bad_alloc, with nothing changed.
    void append(std::int64_t value);
    void append_zeros(std::uint64_t count);
    // The largest sample; 0 of an empty series.
    std::int64_t max() const;
};

// A walk over the samples of a series, which must stay as it is meanwhile.
class MEM_SERIES_CURSOR {
  public:
    explicit MEM_SERIES_CURSOR(const MEM_SERIES& series)
        : m_run(series.runs.data()), m_end(m_run + series.runs.size()) {}

    // The sample that the cursor stands on, then on to the next one. Behind the last sample 0 for ever: a
    // series is shorter than its timeline when its quantity was unknown for a while.
    std::int64_t next() {
        if (m_run == m_end)
            return 0;
        const std::int64_t value = m_run->value;
        if (++m_taken == m_run->count) {
            ++m_run;
            m_taken = 0;
        }
        return value;
    }

  private:
    const MEM_SERIES_RUN* m_run;
    const MEM_SERIES_RUN* m_end;
    std::uint64_t m_taken = 0; // samples of this run that were given
};
