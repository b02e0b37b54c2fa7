// Address space that is held and given back when the process has none left.
#pragma once

#include <atomic>
#include <cstddef>

// A mapping that nothing is ever written to, so it takes no memory; but it counts where address space or
// promised memory is limited.
class OS_ADDRESS_ROOM {
  public:
    constexpr OS_ADDRESS_ROOM() = default;
    OS_ADDRESS_ROOM(const OS_ADDRESS_ROOM&) = delete;
    OS_ADDRESS_ROOM& operator=(const OS_ADDRESS_ROOM&) = delete;

    // Once, on one thread. Holds nothing when the system refuses.
    // bytes  a multiple of the page size, like all figures here
    void hold(std::size_t bytes);

    // Gives back that many of the bytes still held, or all of them when there are fewer. False when there
    // were none. Any thread.
    bool give_back(std::size_t bytes);
    void give_all_back() { give_back(m_left.load(std::memory_order_relaxed)); }

  private:
    char* m_begin = nullptr;
    std::atomic<std::size_t> m_left{0};
};
