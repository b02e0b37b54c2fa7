// Samples stored by runs of equal values: what a timeline keeps of anything that it samples.
//
//     samples   0 0 0 0 512 512 0 ...
//     runs      {0, 4}  {512, 2}  {0, 1}
//
// Neighbouring runs differ in value; the counts add up to num_samples. What stands still costs one increment
// a sample. Nothing is ever thinned or dropped.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

template <class T>
struct MEM_RUN {
    T value;
    std::uint64_t count; // consecutive samples of this value, never 0
};

template <class T>
struct MEM_RUNS {
    std::vector<MEM_RUN<T>> runs;
    std::uint64_t num_samples = 0;

    // Makes room, so that the next few appends allocate nothing for runs. Throws std::bad_alloc, with nothing
    // changed, as does the append.
    void make_room() {
        // Several names can share the series of a timeline, and each of them appends to it in one sample.
        constexpr std::size_t SPARE_RUNS = 4;
        // Doubling by hand: reserve gives just what is asked for, which would move the runs every time.
        if (runs.capacity() - runs.size() < SPARE_RUNS)
            runs.reserve(std::max(2 * runs.size(), runs.size() + SPARE_RUNS));
    }

    void append(const T& value) { append(value, 1); }

  protected:
    void append(const T& value, std::uint64_t count) {
        if (!runs.empty() && runs.back().value == value)
            runs.back().count += count;
        else
            runs.push_back({value, count});
        num_samples += count;
    }
};

// A walk over the samples, which must stay as they are meanwhile.
template <class T>
class MEM_RUNS_CURSOR {
  public:
    explicit MEM_RUNS_CURSOR(const std::vector<MEM_RUN<T>>& runs)
        : m_run(runs.data()), m_end(m_run + runs.size()) {}

    // The run that the sample belongs to; null behind the last one.
    const MEM_RUN<T>* run() const { return m_run != m_end ? m_run : nullptr; }

    void advance() {
        if (m_run != m_end && ++m_taken == m_run->count) {
            ++m_run;
            m_taken = 0;
        }
    }

  private:
    const MEM_RUN<T>* m_run;
    const MEM_RUN<T>* m_end;
    std::uint64_t m_taken = 0; // samples of this run that lie behind
};
