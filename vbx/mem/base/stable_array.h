// An array that grows while other threads read it: elements never move, so a reader needs no lock to index.
//
//     segment 0   [0]
//     segment 1   [1][2]
//     segment 2   [3][4][5][6]          segment s holds the 2^s elements from 2^s - 1 on
//
// How many of the elements mean something is its owner's business.
#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

template <class T>
class MEM_STABLE_ARRAY {
  public:
    MEM_STABLE_ARRAY() = default;
    ~MEM_STABLE_ARRAY() {
        for (auto& segment : m_segments)
            delete[] segment.load(std::memory_order_relaxed);
    }
    MEM_STABLE_ARRAY(const MEM_STABLE_ARRAY&) = delete;
    MEM_STABLE_ARRAY& operator=(const MEM_STABLE_ARRAY&) = delete;

    // Lock-free, on any thread.
    bool has_room_for(std::uint32_t index) const {
        return m_segments[place_of(index).segment].load(std::memory_order_acquire) != nullptr;
    }

    // Makes room up to and including an index; new elements have their initial value. On one thread at a
    // time. Throws std::bad_alloc, with the array as usable as before.
    void make_room_for(std::uint32_t index) {
        for (std::size_t segment = 0; segment <= place_of(index).segment; ++segment)
            if (m_segments[segment].load(std::memory_order_relaxed) == nullptr)
                m_segments[segment].store(new T[length_of(segment)], std::memory_order_release);
    }

    // An element that there is room for. Lock-free, on any thread.
    T& operator[](std::uint32_t index) const {
        const PLACE place = place_of(index);
        return m_segments[place.segment].load(std::memory_order_acquire)[place.offset];
    }

  private:
    struct PLACE {
        std::size_t segment;
        std::size_t offset;
    };
    static constexpr std::size_t length_of(std::size_t segment) { return std::size_t{1} << segment; }
    static constexpr PLACE place_of(std::uint32_t index) {
        const std::uint64_t position = std::uint64_t{index} + 1;
        // The highest bit's number. As std::bit_width(position) - 1 it would take two instructions more.
        const auto segment = static_cast<std::size_t>(63 ^ std::countl_zero(position));
        return {segment, position - length_of(segment)};
    }

    static constexpr std::size_t SEGMENT_COUNT = 33;
    std::array<std::atomic<T*>, SEGMENT_COUNT> m_segments{};
};
