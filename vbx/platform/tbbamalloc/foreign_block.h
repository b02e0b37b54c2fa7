// Telling the blocks of the C library's own heap from tbbmalloc's.
#pragma once

#include "vbx/platform/tbbamalloc/heap_functions.h"

#include <stdint.h>

// Whether tbbmalloc can't even be asked about the block. It looks for a header at the 16 KB boundary below,
// where nothing need be mapped if the C library got the block straight from the system.
bool tbbk_is_stray_block(const void* block) noexcept;

// The cheap test before that: a block straight from the system carries its size, in whole pages together
// with what an alignment left over, and the mark 2 in the words before it. Those words can be read before
// every block; in tbbmalloc's they may be a neighbour's contents and look alike by chance.
inline bool tbbk_may_be_stray_block(const void* block) noexcept {
    const std::size_t* const words = static_cast<const std::size_t*>(block);
    return (words[-1] & 7) == 2 && ((words[-1] - 2 + words[-2]) & 4095) == 0;
}

inline bool tbbk_is_stray(const void* block) noexcept {
    return tbbk_may_be_stray_block(block) && tbbk_is_stray_block(block);
}

// Usable size in bytes of a block of tbbmalloc's; 0 for a foreign one, since none of its own has size 0.
inline std::size_t tbbk_own_size(void* block) noexcept {
    if (tbbk_is_stray(block))
        return 0;
    return __TBB_malloc_safer_msize(block, [](void*) -> std::size_t { return 0; });
}

// Usable size of a foreign block as the C library's heap reports it; 0 when its function can't be found.
std::size_t tbbk_foreign_size(void* block) noexcept;
