// Zeroing a block without making its untouched pages resident.
#pragma once

#include <cstddef>

// Makes `size` bytes from `block` on zero. `block` is a whole block of tbbmalloc's, private to the caller.
void tbbk_zero_block(void* block, std::size_t size) noexcept;
