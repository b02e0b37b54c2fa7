#include "vbx/platform/tbbamalloc/foreign_block.h"

#include <dlfcn.h>
#include <errno.h>
#include <sys/mman.h>

#include <atomic>

namespace {

using SIZE_FUNCTION = std::size_t (*)(void*);

constinit std::atomic<SIZE_FUNCTION> libc_size_function = nullptr;

constexpr std::uintptr_t slab = 16384;

} // namespace

bool tbbk_is_stray_block(const void* block) noexcept {
    const int saved_errno = errno;
    unsigned char residency = 0;
    const std::uintptr_t header = reinterpret_cast<std::uintptr_t>(block) & ~(slab - 1);
    const bool is_unmapped = mincore(reinterpret_cast<void*>(header), 1, &residency) != 0 && errno == ENOMEM;
    errno = saved_errno;
    return is_unmapped;
}

// The C library exports its size function only under the name that we interpose. Looking it up takes the
// loader's lock, so this runs outside any entry, for a foreign block alone.
std::size_t tbbk_foreign_size(void* block) noexcept {
    SIZE_FUNCTION function = libc_size_function.load(std::memory_order_acquire);
    if (function == nullptr) {
        function = reinterpret_cast<SIZE_FUNCTION>(dlsym(RTLD_NEXT, "malloc_usable_size"));
        libc_size_function.store(function, std::memory_order_release);
    }
    return function == nullptr ? 0 : function(block);
}
