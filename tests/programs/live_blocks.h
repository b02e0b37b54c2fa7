// The event checker's table of live blocks: open addressing over pages of its own, because a checker that
// used the heap would have events itself. Not thread-safe.
#pragma once

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

class LIVE_BLOCKS {
  public:
    // False when the block is there already; its size is then replaced.
    bool insert(std::uintptr_t block, std::uint64_t size) {
        if (2 * m_count >= m_capacity)
            grow();
        ENTRY& entry = find(block);
        const bool is_new = entry.block == 0;
        entry = {block, size};
        m_count += is_new ? 1 : 0;
        return is_new;
    }

    // False when the block isn't there.
    bool take(std::uintptr_t block, std::uint64_t& size) {
        if (m_capacity == 0 || find(block).block == 0)
            return false;
        ENTRY* hole = &find(block);
        size = hole->size;
        hole->block = 0;
        --m_count;
        // Entries behind the hole move up when the hole stands on their way from their home.
        for (std::size_t index = next(index_of(hole)); m_entries[index].block != 0; index = next(index)) {
            const std::size_t home = home_of(m_entries[index].block);
            const std::size_t hole_index = index_of(hole);
            if (((index - home) & (m_capacity - 1)) < ((index - hole_index) & (m_capacity - 1)))
                continue;
            *hole = m_entries[index];
            hole = &m_entries[index];
            hole->block = 0;
        }
        return true;
    }

  private:
    struct ENTRY {
        std::uintptr_t block; // 0: free
        std::uint64_t size;
    };

    std::size_t home_of(std::uintptr_t block) const {
        return (block * 0x9E3779B97F4A7C15 >> 20) & (m_capacity - 1);
    }
    std::size_t index_of(const ENTRY* entry) const { return static_cast<std::size_t>(entry - m_entries); }
    std::size_t next(std::size_t index) const { return (index + 1) & (m_capacity - 1); }

    // The block's entry, or the free one where it belongs.
    ENTRY& find(std::uintptr_t block) {
        std::size_t index = home_of(block);
        while (m_entries[index].block != 0 && m_entries[index].block != block)
            index = next(index);
        return m_entries[index];
    }

    void grow() {
        ENTRY* const old = m_entries;
        const std::size_t old_capacity = m_capacity;
        m_capacity = old_capacity != 0 ? 4 * old_capacity : 1 << 14;
        void* const pages = mmap(nullptr, m_capacity * sizeof(ENTRY), PROT_READ | PROT_WRITE,
                                 MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (pages == MAP_FAILED)
            std::abort();
        m_entries = static_cast<ENTRY*>(pages);
        for (std::size_t index = 0; index < old_capacity; ++index)
            if (old[index].block != 0)
                find(old[index].block) = old[index];
        if (old != nullptr)
            munmap(old, old_capacity * sizeof(ENTRY));
    }

    ENTRY* m_entries = nullptr;
    std::size_t m_capacity = 0; // a power of 2
    std::size_t m_count = 0;
};
