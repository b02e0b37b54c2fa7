// The heap behind the entry points: tbbmalloc's, or the C library's in a child that was forked while
// another thread would not leave the shim. In such a child tbbmalloc may hold locks which nobody will
// ever release; the C library's own heap gets through any fork.
#pragma once

#include "vbx/platform/tbbamalloc/heap_functions.h"

// Called through pointers as they would be called through the import table anyway: the choice costs nothing.
struct TBBK_HEAP {
    void* (*obtain)(std::size_t size);
    void* (*obtain_aligned)(std::size_t size, std::size_t alignment);
    void* (*resize)(void* block, std::size_t size); // block not null, size not 0
    void (*give_back)(void* block);                 // any block, foreign ones too
    bool is_abandoned;                              // the C library's
};

extern TBBK_HEAP tbbk_heap __attribute__((visibility("hidden")));

// In a forked child with a single thread: from now on all blocks come from the C library. Blocks of tbbmalloc
// stay readable and are never given back. No events are reported any more.
void tbbk_heap_abandon() noexcept;
