// Which of many address ranges holds an address. Ranges may nest: the innermost one answers.
//
//   start      0        10     20          100      A = [0,100)  B = [10,20)
//   A          |-----------------------------|      find(15) -> B   find(50) -> A, reached from B through
//   B                   |------|                    its `outer` link, since B is the last one that starts
//                                                   at or before 50
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class SYM_INTERVAL_INDEX {
  public:
    static constexpr std::uint32_t none = UINT32_MAX;

    struct INTERVAL {
        std::uint64_t start;
        std::uint64_t end; // one past the last address
        std::uint32_t payload;
        std::uint32_t outer; // index of the next enclosing interval, or none
    };

    void reserve(std::size_t count) { m_intervals.reserve(count); }

    // Empty ranges are left out. Of equal ranges the one added last answers.
    void add(std::uint64_t start, std::uint64_t end, std::uint32_t payload);

    // Sorts and links; once, after the last add and before the first find.
    void seal();

    // The innermost interval that holds the address, or null.
    const INTERVAL* find(std::uint64_t address) const;

    bool empty() const { return m_intervals.empty(); }

  private:
    std::vector<INTERVAL> m_intervals;
};
