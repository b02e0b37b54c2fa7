// Address space that is held and given back when the process has none left.
#pragma once

#include <cstddef>

// A mapping that nothing is ever written to, so it takes no memory; but it counts where address space or
// promised memory is limited. A held one stays as it is.
class OS_ADDRESS_ROOM {
  public:
    constexpr OS_ADDRESS_ROOM() = default;
    OS_ADDRESS_ROOM(const OS_ADDRESS_ROOM&) = delete;
    OS_ADDRESS_ROOM& operator=(const OS_ADDRESS_ROOM&) = delete;

    // On one thread at a time. Holds nothing when the system refuses.
    void hold(std::size_t bytes);
    void give_back();

  private:
    void* m_begin = nullptr;
    std::size_t m_bytes = 0;
};
