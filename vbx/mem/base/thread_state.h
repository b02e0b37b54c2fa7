// What the library keeps for each thread, and the guards of the two bytes that turn events away.
//
// The tracker uses the ordinary heap itself. Each of its own allocations comes back into the event handler on
// the same thread; one of the two bytes is set then, and the event only moves the fallback counters. Nothing
// else keeps the tracker out of itself.
//
// These are plain words in static TLS: no destructors, so events that come after a thread's own destructors
// find them valid, and no allocation on first use.
#pragma once

#include <atomic>
#include <cstdint>

struct MEM_THREAD_STATE {
    std::uint8_t block_byte = 0;      // who blocks the thread: bits of MEM_BLOCKED_BY
    std::uint8_t in_tracker_byte = 0; // set for the length of one event
    std::uint8_t log_guard_byte = 1;  // 0 while the thread writes a line of the allocation log
    void* thread_reserve = nullptr;   // memory for the last steps of a process that runs out of it
};

// Any of them turns the thread's events away from the tracker.
enum MEM_BLOCKED_BY : std::uint8_t {
    MEM_BLOCKED_BY_HOST = 1,
    MEM_BLOCKED_BY_OWN_WORK = 2,   // an operation of the library, which may hold locks
    MEM_BLOCKED_BY_FREE_CHECK = 4, // the double-free check
    MEM_BLOCKED_BY_LAST_STEPS = 8, // the end of a process without memory; holds no lock
};

inline constinit __thread MEM_THREAD_STATE mem_thread_state{};

// Bits of a byte set for a scope. The byte gets its old value back, so scopes nest.
//
// The fences are for the compiler: it knows that the C library's malloc and free read no variable of ours,
// and would drop a store that only the events inside of those are to see.
class MEM_BYTE_SCOPE {
  public:
    MEM_BYTE_SCOPE(std::uint8_t& byte, std::uint8_t bits) : m_byte(byte), m_saved(byte) {
        m_byte = static_cast<std::uint8_t>(m_saved | bits);
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }
    ~MEM_BYTE_SCOPE() {
        std::atomic_signal_fence(std::memory_order_seq_cst);
        m_byte = m_saved;
    }
    MEM_BYTE_SCOPE(const MEM_BYTE_SCOPE&) = delete;
    MEM_BYTE_SCOPE& operator=(const MEM_BYTE_SCOPE&) = delete;

  private:
    std::uint8_t& m_byte;
    std::uint8_t m_saved;
};

// The thread's own heap use is not tracked while one of these lives.
class MEM_BLOCK_SCOPE : MEM_BYTE_SCOPE {
  public:
    explicit MEM_BLOCK_SCOPE(MEM_BLOCKED_BY reason = MEM_BLOCKED_BY_OWN_WORK)
        : MEM_BYTE_SCOPE(mem_thread_state.block_byte, reason) {}
};

class MEM_IN_TRACKER_SCOPE : MEM_BYTE_SCOPE {
  public:
    MEM_IN_TRACKER_SCOPE() : MEM_BYTE_SCOPE(mem_thread_state.in_tracker_byte, 1) {}
};

inline bool mem_thread_events_are_turned_away() {
    return (mem_thread_state.in_tracker_byte | mem_thread_state.block_byte) != 0;
}

// Whether the thread may hold locks of the library, which is no place to end the process from.
inline bool mem_thread_is_inside_library() {
    return mem_thread_state.in_tracker_byte != 0 ||
           (mem_thread_state.block_byte & ~unsigned{MEM_BLOCKED_BY_HOST}) != 0;
}
