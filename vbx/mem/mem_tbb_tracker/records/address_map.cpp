#include "vbx/mem/mem_tbb_tracker/records/address_map.h"

#include "vbx/mem/base/check.h"
#include "vbx/mem/base/thread_state.h"

#include <memory>

char* MEM_POOL_MEMORY::allocate(std::size_t count) {
    const MEM_BLOCK_SCOPE own_heap_use;
    char* const memory = std::allocator<char>().allocate(count);
    mem_note_memory_of_pool(memory);
    return memory;
}

void MEM_POOL_MEMORY::deallocate(char* memory, std::size_t count) {
    const MEM_BLOCK_SCOPE own_heap_use;
    std::allocator<char>().deallocate(memory, count);
}

MEM_ADDRESS_MAP::MEM_ADDRESS_MAP() : m_entries(ALLOCATOR(POOL_ALLOCATOR<ENTRY>(m_pool))) {}

void MEM_ADDRESS_MAP::insert(const void* block, const MEM_BLOCK_RECORD& record) {
    const MEM_RANK_SCOPE accessor_rank(MEM_LOCK_RANK::accessor);
    // The record goes in with the key: the map may link the new entry and then fail to grow.
    if (m_entries.insert(ENTRY(block, record)))
        return;
    ENTRIES::accessor entry;
    m_entries.insert(entry, ENTRY(block, record));
    entry->second = record;
}

bool MEM_ADDRESS_MAP::take(const void* block, MEM_BLOCK_RECORD& record) {
    const MEM_RANK_SCOPE accessor_rank(MEM_LOCK_RANK::accessor);
    ENTRIES::accessor entry;
    if (!m_entries.find(entry, block))
        return false;
    record = entry->second;
    MEM_ADDRESS_TRACKER* const address_tracker_ptr = record.address_tracker_ptr;
    MEM_CHECK(address_tracker_ptr != nullptr);
    m_entries.erase(entry);
    return true;
}
