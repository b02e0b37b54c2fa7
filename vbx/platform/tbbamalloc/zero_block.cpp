#include "vbx/platform/tbbamalloc/zero_block.h"

#include <errno.h>
#include <string.h>
#include <sys/mman.h>

#include <cstdint>

namespace {

constexpr std::size_t page = 4096;
constexpr std::size_t huge_page = std::size_t{2} << 20;

// From here on dropping pages costs less than writing them, even for a block of resident pages that is used
// in full afterwards.
constexpr std::size_t drop_threshold = std::size_t{256} << 10;

} // namespace

// tbbmalloc hands out used memory of its large-block cache as well as fresh pages and doesn't tell which.
// Dropping the pages is right for both: a dirty one reads zero again, a fresh one stays away.
void tbbk_zero_block(void* block, std::size_t size) noexcept {
    const std::uintptr_t begin = reinterpret_cast<std::uintptr_t>(block);
    const std::uintptr_t end = begin + size;
    std::uintptr_t first = (begin + page - 1) & ~(page - 1);
    const std::uintptr_t last = end & ~(page - 1);
    // Memory of reserved huge pages must not be dropped in part: kernels differ in how they round such a
    // range and some report success for less than was asked. From an address off the huge page boundary they
    // all refuse.
    if (first % huge_page == 0)
        first += page;
    if (size < drop_threshold || first >= last) {
        memset(block, 0, size);
        return;
    }
    const int saved_errno = errno;
    if (madvise(reinterpret_cast<void*>(first), last - first, MADV_DONTNEED) == 0) {
        memset(block, 0, first - begin);
        memset(reinterpret_cast<void*>(last), 0, end - last);
    } else {
        memset(block, 0, size); // locked pages, or huge ones
    }
    errno = saved_errno;
}
