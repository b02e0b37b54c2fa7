#include "vbx/platform/os/address_room.h"

#include <sys/mman.h>

void OS_ADDRESS_ROOM::hold(std::size_t bytes) {
    if (m_begin != nullptr)
        return;
    void* const begin = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (begin == MAP_FAILED)
        return;
    m_begin = begin;
    m_bytes = bytes;
}

void OS_ADDRESS_ROOM::give_back() {
    if (m_begin != nullptr)
        munmap(m_begin, m_bytes);
    m_begin = nullptr;
}
