// The entry points that take an alignment.
#include "vbx/platform/tbbamalloc/allocate.h"
#include "vbx/platform/tbbamalloc/slot_size.h"

#include <errno.h>
#include <unistd.h>

namespace {

constexpr bool is_power_of_two(std::size_t value) noexcept {
    return value != 0 && (value & (value - 1)) == 0;
}

// alignment  power of two
[[gnu::always_inline]] inline void* allocate_aligned(const void* frame, std::size_t alignment,
                                                     std::size_t size) noexcept {
    const std::size_t at_least = alignment < sizeof(void*) ? sizeof(void*) : alignment;
    return tbbk_allocate<tbbk_report_aligned_allocation>(
        frame, size,
        [at_least, size]() -> void* {
            if (at_least > tbbk_largest_request || size > tbbk_largest_request - at_least)
                return nullptr;
            tbbk_note_alignment(at_least);
            // The heap takes no zero here; malloc(0) and its relatives give a block of their own.
            return tbbk_heap.obtain_aligned(tbbk_size_for_alignment(size == 0 ? 1 : size, at_least),
                                            at_least);
        },
        [](void*) {});
}

[[gnu::always_inline]] inline void* fail(int error) noexcept {
    errno = error;
    return nullptr;
}

[[gnu::always_inline]] inline void* allocate_rounded(const void* frame, std::size_t alignment,
                                                     std::size_t size) noexcept {
    if (alignment > SIZE_MAX / 2 + 1)
        return fail(EINVAL);
    std::size_t power = sizeof(void*);
    while (power < alignment)
        power <<= 1;
    return allocate_aligned(frame, power, size);
}

std::size_t page_size() noexcept {
    return static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

} // namespace

#pragma GCC visibility push(default)
extern "C" {

// Like the C library, rounds an odd alignment up to the next power of two.
void* memalign(std::size_t alignment, std::size_t size) noexcept {
    return allocate_rounded(TBBK_FRAME, alignment, size);
}

// The C library of this platform does the same here, and programs that pass 24 work with it.
void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
    return allocate_rounded(TBBK_FRAME, alignment, size);
}

// Gives the error and keeps errno, as POSIX asks for; `*result` is only written on success.
int posix_memalign(void** result, std::size_t alignment, std::size_t size) noexcept {
    if (!is_power_of_two(alignment) || alignment % sizeof(void*) != 0)
        return EINVAL;
    const int saved_errno = errno;
    void* const block = allocate_aligned(TBBK_FRAME, alignment, size);
    errno = saved_errno;
    if (block == nullptr)
        return ENOMEM;
    *result = block;
    return 0;
}

void* valloc(std::size_t size) noexcept {
    return allocate_aligned(TBBK_FRAME, page_size(), size);
}

void* pvalloc(std::size_t size) noexcept {
    const std::size_t page = page_size();
    if (size > SIZE_MAX - page)
        return fail(ENOMEM);
    return allocate_aligned(TBBK_FRAME, page, (size + page - 1) & ~(page - 1));
}
}
#pragma GCC visibility pop
