// What the two heaps below the shim offer and no public header declares.
//
// Blocks from the C library's own heap ("foreign" here) reach the shim whenever code calls __libc_malloc or
// was bound to the C library before the shim stood in front of it. tbbmalloc tells its own blocks from all
// others and hands the others to the function that the caller names.
#pragma once

#include <tbb/scalable_allocator.h>

#include <cstddef>

extern "C" {
void __TBB_malloc_safer_free(void* block, void (*foreign_free)(void*));
std::size_t __TBB_malloc_safer_msize(void* block, std::size_t (*foreign_msize)(void*));
// The third argument is a `void* (*)(void*, std::size_t)`, passed as an object pointer.
void* __TBB_malloc_safer_realloc(void* block, std::size_t size, void* foreign_realloc);

void* __libc_malloc(std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);
}
