#include "vbx/platform/tbbamalloc/zero_block.h"

#include <errno.h>
#include <string.h>
#include <sys/mman.h>

#include <cstdint>

namespace {

constexpr std::size_t page = 4096;
constexpr std::size_t huge_page = std::size_t{2} << 20;

// Smaller blocks are written: the system calls would cost more.
constexpr std::size_t smallest_sparse_size = std::size_t{128} << 10;

// From here on dropping pages costs no more than writing them, even if they were resident and all will be
// used again. Below, it costs up to six times as much.
constexpr std::size_t always_drop_size = std::size_t{16} << 20;

// Swapped-out pages count as not resident.
bool are_all_resident(std::uintptr_t first, std::uintptr_t last) noexcept {
    constexpr std::size_t pages_at_once = 256;
    unsigned char residency[pages_at_once];
    while (first != last) {
        const std::size_t left = (last - first) / page;
        const std::size_t count = left < pages_at_once ? left : pages_at_once;
        if (mincore(reinterpret_cast<void*>(first), count * page, residency) != 0)
            return false;
        for (std::size_t i = 0; i != count; ++i) {
            if ((residency[i] & 1) == 0)
                return false;
        }
        first += count * page;
    }
    return true;
}

// Gives whether the pages from `first` to `last` read zero now.
bool drop_pages(std::uintptr_t first, std::uintptr_t last) noexcept {
    return madvise(reinterpret_cast<void*>(first), last - first, MADV_DONTNEED) == 0;
}

} // namespace

// tbbmalloc hands out used memory of its large-block cache as well as fresh pages and doesn't tell which.
// Dropping the pages is right for both: a dirty one reads zero again, a fresh one stays away. Pages that are
// all there already are written instead, which makes nothing resident either.
void tbbk_zero_block(void* block, std::size_t size) noexcept {
    if (size < smallest_sparse_size) {
        memset(block, 0, size);
        return;
    }
    const int saved_errno = errno;
    const std::uintptr_t begin = reinterpret_cast<std::uintptr_t>(block);
    const std::uintptr_t end = begin + size;
    const std::uintptr_t last = end & ~(page - 1);
    std::uintptr_t first = (begin + page - 1) & ~(page - 1);
    // Memory of reserved huge pages must not be dropped in part: kernels differ in how they round such a
    // range, and some report success for less than was asked. From an address off the huge page boundary they
    // all refuse.
    if (first % huge_page == 0)
        first += page;
    const bool is_full = size < always_drop_size && are_all_resident(first, last);
    if (!is_full && drop_pages(first, last)) {
        memset(block, 0, first - begin);
        memset(reinterpret_cast<void*>(last), 0, end - last);
    } else {
        memset(block, 0, size); // all there, or locked, or huge pages
    }
    errno = saved_errno;
}
