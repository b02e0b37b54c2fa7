#include "vbx/mem/out_of_memory/reserves.h"

#include "vbx/mem/base/thread_state.h"

#include <cstdlib>
#include <cstring>

namespace {

constinit void* process_reserve MEM_GUARDED_BY(mem_library_lock) = nullptr;

bool allocate(void*& reserve) {
    if (reserve == nullptr)
        reserve = std::malloc(MEM_RESERVE_BYTES);
    if (reserve != nullptr)
        std::memset(reserve, 0, MEM_RESERVE_BYTES);
    return reserve != nullptr;
}

void release(void*& reserve) {
    std::free(reserve);
    reserve = nullptr;
}

} // namespace

bool mem_allocate_reserves() {
    const MEM_BLOCK_SCOPE own_heap_use;
    return allocate(mem_thread_state.thread_reserve) && allocate(process_reserve);
}

void mem_release_reserves() {
    const MEM_BLOCK_SCOPE own_heap_use;
    release(mem_thread_state.thread_reserve);
    release(process_reserve);
}
