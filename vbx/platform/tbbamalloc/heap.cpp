#include "vbx/platform/tbbamalloc/heap.h"

#include "vbx/platform/tbbamalloc/foreign_block.h"

#include <string.h>

namespace {

void* resize_either(void* block, std::size_t size) {
    if (tbbk_is_stray(block))
        return __libc_realloc(block, size);
    return __TBB_malloc_safer_realloc(block, size, reinterpret_cast<void*>(&__libc_realloc));
}

void give_back_either(void* block) {
    if (tbbk_is_stray(block))
        return __libc_free(block);
    __TBB_malloc_safer_free(block, __libc_free);
}

// The memory of the abandoned heap is only read: telling its blocks from others takes none of its locks.
void* libc_obtain_aligned(std::size_t size, std::size_t alignment) {
    return __libc_memalign(alignment, size);
}

void* resize_into_libc(void* block, std::size_t size) {
    const std::size_t old_size = tbbk_own_size(block);
    if (old_size == 0)
        return __libc_realloc(block, size);
    void* const moved = __libc_malloc(size);
    if (moved != nullptr)
        memcpy(moved, block, size < old_size ? size : old_size);
    return moved;
}

void give_back_to_libc(void* block) {
    if (tbbk_own_size(block) == 0)
        __libc_free(block);
}

} // namespace

constinit TBBK_HEAP tbbk_heap = {scalable_malloc, scalable_aligned_malloc, resize_either, give_back_either,
                                 false};

void tbbk_heap_abandon() noexcept {
    tbbk_heap = {__libc_malloc, libc_obtain_aligned, resize_into_libc, give_back_to_libc, true};
}
