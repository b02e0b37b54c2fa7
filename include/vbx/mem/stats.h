// Process-wide counters: bytes and blocks that are live, their high-water marks, and local regions.
//
//     current  ......................./\......  what is live now
//     peak     ________________________________  the highest current so far
//     local_peak       [region.......]           the highest current since the region began
//
// The counters run while the granularity mask has MEM_GRANULARITY_PER_BIN or
// MEM_GRANULARITY_CHECK_LEAKS_FAST. They are alive before the tracker starts and after its teardown.
#pragma once

#include <vbx/mem/export.h>

#include <atomic>
#include <cstdint>

// One number that many threads change: plain loads and stores, atomic additions, no ordering.
template <class T>
class KTL_RELAXED_ATOMIC_BASE {
  public:
    constexpr KTL_RELAXED_ATOMIC_BASE() = default;
    // value  the first one
    constexpr explicit KTL_RELAXED_ATOMIC_BASE(T value) : m_value(value) {}
    // A copy takes the value of this moment.
    KTL_RELAXED_ATOMIC_BASE(const KTL_RELAXED_ATOMIC_BASE& other) : m_value(other.load()) {}
    KTL_RELAXED_ATOMIC_BASE& operator=(const KTL_RELAXED_ATOMIC_BASE& other) {
        store(other.load());
        return *this;
    }
    virtual ~KTL_RELAXED_ATOMIC_BASE() = default;

    // Returns the value
    T load() const { return m_value.load(std::memory_order_relaxed); }
    // value  replaces the one that is there
    void store(T value) { m_value.store(value, std::memory_order_relaxed); }
    // delta  is added to the value, or taken from it
    // Returns the value behind that
    T add(T delta) { return m_value.fetch_add(delta, std::memory_order_relaxed) + delta; }
    T subtract(T delta) { return m_value.fetch_sub(delta, std::memory_order_relaxed) - delta; }
    // floor  becomes the value, unless that is higher already
    void raise_to(T floor) {
        T seen = load();
        while (floor > seen && !m_value.compare_exchange_weak(seen, floor, std::memory_order_relaxed)) {
        }
    }

  private:
    std::atomic<T> m_value{0};
};

template <class T>
class KTL_RELAXED_ATOMIC : public KTL_RELAXED_ATOMIC_BASE<T> {
  public:
    using KTL_RELAXED_ATOMIC_BASE<T>::KTL_RELAXED_ATOMIC_BASE;
};

// A pair of counters.
struct MEM_BASE_STATS {
    KTL_RELAXED_ATOMIC<long long> bytes;  // of the slots that the allocator gave
    KTL_RELAXED_ATOMIC<long long> blocks; // how many
};

// The counters of the process. The two peaks of a pair need not have been reached at the same time.
struct MEM_STATS {
    MEM_BASE_STATS current;    // live now; can be below 0
    MEM_BASE_STATS peak;       // highest current so far
    MEM_BASE_STATS local_peak; // highest current since the region began

    // Counts one block and raises both pairs of peaks. Lock-free.
    // size  bytes of its slot
    void add_block(std::uint64_t size);
    // Takes one block from `current`, which may fall below 0. Lock-free.
    // size  bytes of its slot
    void remove_block(std::uint64_t size);
};

// The queries read each field by itself: the figures of one call are not one instant. Lock-free.
// Returns a copy of the counters, in bytes and blocks
VBX_MEM_API MEM_STATS mem_get_stats();
VBX_MEM_API MEM_BASE_STATS mem_get_global_current();
VBX_MEM_API MEM_BASE_STATS mem_get_global_peak();
VBX_MEM_API MEM_BASE_STATS mem_get_local_peak();
// Returns live bytes; a figure below 0 turns into a very large number. Lock-free
VBX_MEM_API std::uint64_t mem_get_current_bytes();
