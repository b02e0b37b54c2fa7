// Sizes of live blocks by address, for the sanitizer flavour: a sanitizer's free hook runs when the runtime
// no longer tells the size of the block.
#pragma once

#include <cstddef>

// Remembers a block. False when there is no room; its free will then not be known either.
// To be called inside a TBBK_ENTRY, so that no fork copies a lock of the table.
bool tbbk_size_table_add(const void* block, std::size_t size) noexcept;

enum class TBBK_LOOKUP { found, unknown };

// Forgets a block and gives its size. Blocks from before the hooks are unknown.
TBBK_LOOKUP tbbk_size_table_take(const void* block, std::size_t& size) noexcept;
