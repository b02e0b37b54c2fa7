// Blocks that the C library's own heap gave out.
#pragma once

#include "vbx/platform/tbbamalloc/heap_functions.h"

// Usable size in bytes of a block of tbbmalloc's; 0 for a foreign one, since none of its own has size 0.
inline std::size_t tbbk_own_size(void* block) noexcept {
    return __TBB_malloc_safer_msize(block, [](void*) -> std::size_t { return 0; });
}

// Usable size of a foreign block as the C library's heap reports it; 0 when its function can't be found.
std::size_t tbbk_foreign_size(void* block) noexcept;
