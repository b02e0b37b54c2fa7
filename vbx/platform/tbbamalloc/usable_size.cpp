// The size queries.
#include "vbx/platform/tbbamalloc/foreign_block.h"
#include "vbx/platform/tbbamalloc/gate.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <dlfcn.h>

namespace {

using SIZE_FUNCTION = std::size_t (*)(void*);

constinit std::atomic<SIZE_FUNCTION> libc_size_function = nullptr;

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

// The C library exports its size function under the name only that we interpose. Looking it up takes the
// loader's lock, so this runs outside any entry, for a foreign block alone.
std::size_t tbbk_foreign_size(void* block) noexcept {
    SIZE_FUNCTION function = libc_size_function.load(std::memory_order_acquire);
    if (function == nullptr) {
        function = reinterpret_cast<SIZE_FUNCTION>(dlsym(RTLD_NEXT, "malloc_usable_size"));
        libc_size_function.store(function, std::memory_order_release);
    }
    return function == nullptr ? 0 : function(block);
}

extern "C" [[gnu::visibility("default")]] std::size_t malloc_usable_size(void* block) noexcept {
    return usable_size(block);
}

std::size_t _msize(void* block) noexcept {
    return usable_size(block);
}
