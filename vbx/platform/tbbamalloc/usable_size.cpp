// The size queries.
#include "vbx/platform/tbbamalloc/foreign_block.h"
#include "vbx/platform/tbbamalloc/gate.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"

namespace {

std::size_t usable_size(void* block) noexcept {
    if (block == nullptr)
        return 0;
    {
        TBBK_ENTRY entry;
        if (const std::size_t size = tbbk_own_size(block))
            return size;
    }
    return tbbk_foreign_size(block);
}

} // namespace

extern "C" [[gnu::visibility("default")]] std::size_t malloc_usable_size(void* block) noexcept {
    return usable_size(block);
}

std::size_t _msize(void* block) noexcept {
    return usable_size(block);
}
