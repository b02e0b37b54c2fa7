#include "vbx/mem/out_of_memory/reserves.h"

#include "vbx/mem/base/thread_state.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <cstring>

namespace {

constinit void* process_reserve MEM_GUARDED_BY(mem_library_lock) = nullptr;

bool allocate(void*& reserve) {
    if (reserve != nullptr)
        return true;
    reserve = tbbk_obtain_quietly(MEM_RESERVE_BYTES);
    if (reserve != nullptr)
        std::memset(reserve, 0, MEM_RESERVE_BYTES);
    return reserve != nullptr;
}

void release(void*& reserve) {
    tbbk_give_back_quietly(reserve);
    reserve = nullptr;
}

} // namespace

bool mem_allocate_reserves() {
    return allocate(mem_thread_state.thread_reserve) && allocate(process_reserve);
}

void mem_release_reserves() {
    release(mem_thread_state.thread_reserve);
    release(process_reserve);
}
