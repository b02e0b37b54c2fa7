// What the library keeps for each thread, and the guards of the two bytes that turn events away.
//
// The tracker uses the ordinary heap itself. Each of its own allocations comes back into the event handler on
// the same thread; one of the two bytes is set then, and the event only moves the fallback counters. Nothing
// else keeps the tracker out of itself.
//
// These are plain words in static TLS: no destructors, so events that come after a thread's own destructors
// find them valid, and no allocation on first use.
#pragma once

#include <cstdint>

struct MEM_THREAD_STATE {
    std::uint8_t block_byte;      // set by hosts and by the library's longer operations
    std::uint8_t in_tracker_byte; // set for the length of one event
};

inline constinit __thread MEM_THREAD_STATE mem_thread_state{};

// A byte set for a scope. It gets its old value back, so scopes nest.
class MEM_BYTE_SCOPE {
  public:
    explicit MEM_BYTE_SCOPE(std::uint8_t& byte) : m_byte(byte), m_saved(byte) { m_byte = 1; }
    ~MEM_BYTE_SCOPE() { m_byte = m_saved; }
    MEM_BYTE_SCOPE(const MEM_BYTE_SCOPE&) = delete;
    MEM_BYTE_SCOPE& operator=(const MEM_BYTE_SCOPE&) = delete;

  private:
    std::uint8_t& m_byte;
    std::uint8_t m_saved;
};

// The thread's own heap use is not tracked while one of these lives.
class MEM_BLOCK_SCOPE : MEM_BYTE_SCOPE {
  public:
    MEM_BLOCK_SCOPE() : MEM_BYTE_SCOPE(mem_thread_state.block_byte) {}
};

class MEM_IN_TRACKER_SCOPE : MEM_BYTE_SCOPE {
  public:
    MEM_IN_TRACKER_SCOPE() : MEM_BYTE_SCOPE(mem_thread_state.in_tracker_byte) {}
};

inline bool mem_thread_events_are_turned_away() {
    return (mem_thread_state.in_tracker_byte | mem_thread_state.block_byte) != 0;
}
