// Results, errors and errno of the malloc family, and what the new mode makes of a failure.
#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <string>

namespace {

constexpr std::size_t too_large = SIZE_MAX - 100;

void* posix_result(std::size_t alignment, std::size_t size) {
    void* block = nullptr;
    const int before = errno;
    const int error = posix_memalign(&block, alignment, size);
    EXPECT_EQ(errno, before);
    EXPECT_EQ(error == 0, block != nullptr);
    errno = error;
    return block;
}

struct CALL {
    const char* name;
    std::function<void*()> call;
    int error;               // 0: a block is expected
    std::size_t alignment;   // of the block
    std::size_t usable_size; // at least
};

class Family : public testing::TestWithParam<CALL> {};

TEST_P(Family, GivesBlockOrError) {
    errno = 0;
    void* const block = GetParam().call();
    EXPECT_EQ(block == nullptr ? errno : 0, GetParam().error);
    if (block != nullptr) {
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % GetParam().alignment, 0U);
        EXPECT_GE(malloc_usable_size(block), GetParam().usable_size);
        EXPECT_EQ(malloc_usable_size(block), _msize(block));
    }
    errno = EINTR;
    std::free(block);
    EXPECT_EQ(errno, EINTR);
}

const CALL calls[] = {
    {"malloc_none", [] { return std::malloc(0); }, 0, 8, 1},
    {"malloc", [] { return std::malloc(100); }, 0, 16, 100},
    {"malloc_large", [] { return std::malloc(20'000'000); }, 0, 16, 20'000'000},
    {"malloc_too_large", [] { return std::malloc(too_large); }, ENOMEM, 0, 0},
    {"calloc_none", [] { return std::calloc(0, 5); }, 0, 8, 1},
    {"calloc_overflow", [] { return std::calloc(SIZE_MAX / 2, 3); }, ENOMEM, 0, 0},
    {"realloc_null", [] { return std::realloc(nullptr, 40); }, 0, 16, 40},
    {"realloc_none", [] { return std::realloc(std::malloc(5), 0); }, 0, 1, 0},
    {"reallocarray", [] { return reallocarray(std::malloc(5), 10, 10); }, 0, 16, 100},
    {"reallocarray_overflow", [] { return reallocarray(nullptr, SIZE_MAX, 2); }, ENOMEM, 0, 0},
    {"memalign_rounds_up", [] { return memalign(48, 100); }, 0, 64, 100},
    {"memalign_huge", [] { return memalign(SIZE_MAX, 1); }, EINVAL, 0, 0},
    {"aligned_alloc", [] { return std::aligned_alloc(256, 0); }, 0, 256, 1},
    {"aligned_alloc_odd", [] { return std::aligned_alloc(24, 48); }, 0, 32, 48},
    {"aligned_alloc_too_large", [] { return std::aligned_alloc(4096, too_large); }, ENOMEM, 0, 0},
    {"posix_memalign", [] { return posix_result(65536, 10); }, 0, 65536, 10},
    {"posix_memalign_odd", [] { return posix_result(24, 10); }, EINVAL, 0, 0},
    {"posix_memalign_small", [] { return posix_result(4, 10); }, EINVAL, 0, 0},
    {"posix_memalign_too_large", [] { return posix_result(64, too_large); }, ENOMEM, 0, 0},
    {"valloc", [] { return valloc(10); }, 0, 4096, 10},
    {"pvalloc", [] { return pvalloc(4097); }, 0, 4096, 8192},
    {"pvalloc_too_large", [] { return pvalloc(too_large + 100); }, ENOMEM, 0, 0},
};

INSTANTIATE_TEST_SUITE_P(Calls, Family, testing::ValuesIn(calls),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(Family, FailedReallocKeepsBlock) {
    char* const block = static_cast<char*>(std::malloc(10));
    block[9] = 'x';
    EXPECT_EQ(std::realloc(block, too_large), nullptr);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(block[9], 'x');
    std::free(block);
}

int calls_left = 0;

int give_up_later(std::size_t size) {
    EXPECT_EQ(size, too_large);
    EXPECT_EQ(tbbk_entry_depth(), 0U) << "a handler may leave through exit()";
    errno = EIO;
    return --calls_left;
}

TEST(NewMode, HandlerIsAskedUntilItGivesUp) {
    EXPECT_EQ(_set_new_mode(7), -1);
    EXPECT_EQ(_set_new_handler(give_up_later), nullptr);
    void* const block = std::malloc(10);
    const std::function<void*()> failures[] = {
        [] { return std::malloc(too_large); },
        [] { return std::calloc(1, too_large); },
        [=] { return std::realloc(block, too_large); },
        [] { return memalign(8, too_large); },
        [] { return valloc(too_large); },
    };
    for (const auto& failure : failures) {
        calls_left = 3;
        EXPECT_EQ(failure(), nullptr);
        EXPECT_EQ(calls_left, 3) << "mode 0 asks nobody";
        _set_new_mode(1);
        EXPECT_EQ(failure(), nullptr);
        EXPECT_EQ(errno, ENOMEM);
        EXPECT_EQ(calls_left, 0);
        EXPECT_EQ(_set_new_mode(0), 1);
    }
    std::free(block);
    EXPECT_EQ(_set_new_handler(nullptr), give_up_later);
}

} // namespace
