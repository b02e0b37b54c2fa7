// Results, errors and errno of the malloc family, and what the new mode makes of a failure.
#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <sys/mman.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

constexpr std::size_t too_large = SIZE_MAX - 100;

void* posix_block(std::size_t alignment, std::size_t size) {
    void* block = nullptr;
    const int error = posix_memalign(&block, alignment, size);
    EXPECT_EQ(errno, 0);
    errno = error;
    return block;
}

TEST(Family, GivesBlocksOrErrors) {
    const struct {
        const char* name;
        void* (*call)();
        int error;                   // 0: a block is expected
        std::size_t alignment, size; // of the block, at least
    } calls[] = {
        {"malloc none", [] { return std::malloc(0); }, 0, 8, 1},
        {"malloc too large", [] { return std::malloc(too_large); }, ENOMEM, 0, 0},
        {"calloc overflow", [] { return std::calloc(SIZE_MAX / 2, 3); }, ENOMEM, 0, 0},
        {"realloc of null", [] { return std::realloc(nullptr, 40); }, 0, 16, 40},
        {"realloc none", [] { return std::realloc(std::malloc(5), 0); }, 0, 1, 0},
        {"reallocarray", [] { return reallocarray(std::malloc(5), 10, 10); }, 0, 16, 100},
        {"reallocarray overflow", [] { return reallocarray(nullptr, SIZE_MAX, 2); }, ENOMEM, 0, 0},
        {"memalign odd", [] { return memalign(48, 100); }, 0, 64, 100},
        {"memalign huge", [] { return memalign(SIZE_MAX, 1); }, EINVAL, 0, 0},
        {"aligned_alloc", [] { return std::aligned_alloc(256, 0); }, 0, 256, 1},
        {"aligned_alloc odd", [] { return std::aligned_alloc(24, 48); }, 0, 32, 48},
        {"aligned_alloc too large", [] { return std::aligned_alloc(4096, too_large); }, ENOMEM, 0, 0},
        {"posix_memalign", [] { return posix_block(65536, 10); }, 0, 65536, 10},
        {"posix_memalign odd", [] { return posix_block(24, 10); }, EINVAL, 0, 0},
        {"posix_memalign small", [] { return posix_block(4, 10); }, EINVAL, 0, 0},
        {"posix_memalign too large", [] { return posix_block(64, too_large); }, ENOMEM, 0, 0},
        {"valloc", [] { return valloc(10); }, 0, 4096, 10},
        {"pvalloc", [] { return pvalloc(4097); }, 0, 4096, 8192},
        {"pvalloc too large", [] { return pvalloc(too_large + 100); }, ENOMEM, 0, 0},
    };
    for (const auto& [name, call, error, alignment, size] : calls) {
        SCOPED_TRACE(name);
        errno = 0;
        void* const block = call();
        EXPECT_EQ(block == nullptr ? errno : 0, error);
        if (block != nullptr) {
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % alignment, 0U);
            EXPECT_GE(malloc_usable_size(block), size);
            EXPECT_EQ(malloc_usable_size(block), _msize(block));
        }
        errno = EINTR;
        std::free(block);
        EXPECT_EQ(errno, EINTR);
    }
}

char* kept = nullptr;
int calls_left = 0;

int give_up_later(std::size_t size) {
    EXPECT_EQ(size, too_large);
    EXPECT_EQ(tbbk_entry_depth(), 0U) << "a handler may leave through exit()";
    errno = EIO;
    return --calls_left;
}

TEST(NewMode, HandlerIsAskedUntilItGivesUpAndAFailedReallocKeepsTheBlock) {
    EXPECT_EQ(_set_new_mode(7), -1);
    EXPECT_EQ(_set_new_handler(give_up_later), nullptr);
    kept = strdup("kept");
    void* (*const failures[])() = {
        [] { return std::malloc(too_large); },
        [] { return std::calloc(1, too_large); },
        [] { return std::realloc(kept, too_large); },
        [] { return memalign(8, too_large); },
        [] { return valloc(too_large); },
    };
    for (const auto failure : failures) {
        calls_left = 3;
        EXPECT_EQ(failure(), nullptr);
        EXPECT_EQ(calls_left, 3) << "mode 0 asks nobody";
        _set_new_mode(1);
        EXPECT_EQ(failure(), nullptr);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(calls_left, 0);
        EXPECT_EQ(_set_new_mode(0), 1);
    }
    EXPECT_STREQ(kept, "kept");
    std::free(kept);
    EXPECT_EQ(_set_new_handler(nullptr), give_up_later);
}

std::ptrdiff_t resident_pages(const char* block, std::size_t size) {
    char* const first = reinterpret_cast<char*>((reinterpret_cast<std::uintptr_t>(block) + 4095) & -4096UL);
    const auto pages = static_cast<std::size_t>(block + size - first) / 4096;
    std::vector<unsigned char> residency(pages);
    EXPECT_EQ(mincore(first, pages * 4096, residency.data()), 0);
    return std::ranges::count_if(residency, [](unsigned char page) { return page & 1; });
}

TEST(LargeCalloc, ReadsZeroAndStaysAwayFromMemoryUntilItIsTouched) {
    const auto no_hook = [](void*, std::uint64_t, std::uint64_t, bool) {};
    for (int round = 0; round != 4; ++round) { // a later round may be given the pages of the one before
        tbbk_set_mem_tracker_callback(round < 2 ? nullptr : +no_hook);
        constexpr std::size_t size = 200'000'000;
        char* const block = static_cast<char*>(std::calloc(1, size));
        EXPECT_LE(resident_pages(block, size), 2);
        EXPECT_EQ(block[size / 2] + block[size - 1], 0);
        std::memset(block, 1, size / 8);
        std::free(block);
    }
    tbbk_set_mem_tracker_callback(nullptr);
    if (mlockall(MCL_CURRENT | MCL_FUTURE | MCL_ONFAULT) != 0) // locked pages can't be dropped
        GTEST_SKIP() << "this user may not lock so much memory";
    for (int round = 0; round != 3; ++round) {
        char* const block = static_cast<char*>(std::calloc(1, 1'000'000));
        EXPECT_EQ(std::count(block, block + 500'000, 0), 500'000); // the rest stays away
        std::memset(block, 1, 500'000);
        std::free(block);
    }
    munlockall();
}

} // namespace
