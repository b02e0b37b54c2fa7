#include "vbx/platform/os/address_room.h"

#include <sys/mman.h>

#include <algorithm>

void OS_ADDRESS_ROOM::hold(std::size_t bytes) {
    void* const begin = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (begin == MAP_FAILED)
        return;
    m_begin = static_cast<char*>(begin);
    m_left.store(bytes, std::memory_order_release);
}

bool OS_ADDRESS_ROOM::give_back(std::size_t bytes) {
    std::size_t left = m_left.load(std::memory_order_acquire);
    std::size_t piece = 0;
    do {
        piece = std::min(bytes, left);
        if (piece == 0)
            return false;
    } while (!m_left.compare_exchange_weak(left, left - piece, std::memory_order_acquire));
    munmap(m_begin + left - piece, piece);
    return true;
}
