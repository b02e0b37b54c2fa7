// A large calloc reads zero and stays away from memory until it is touched.
#include "tests/unit/tbbamalloc/recorded_events.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

namespace {

std::size_t resident_pages(void* block, std::size_t size) {
    const std::uintptr_t first = (reinterpret_cast<std::uintptr_t>(block) + 4095) & ~std::uintptr_t{4095};
    const std::size_t pages = (reinterpret_cast<std::uintptr_t>(block) + size - first) / 4096;
    std::vector<unsigned char> residency(pages);
    EXPECT_EQ(mincore(reinterpret_cast<void*>(first), pages * 4096, residency.data()), 0);
    return static_cast<std::size_t>(
        std::count_if(residency.begin(), residency.end(), [](unsigned char page) { return page & 1; }));
}

class SparseBlocks : public testing::TestWithParam<bool> {};

TEST_P(SparseBlocks, StaySparse) {
    std::unique_ptr<RECORDED_EVENTS> recorded;
    if (GetParam())
        recorded = std::make_unique<RECORDED_EVENTS>();
    constexpr std::size_t size = 200'000'000;
    for (int round = 0; round != 2; ++round) {
        char* const block = static_cast<char*>(std::calloc(1, size));
        EXPECT_LE(resident_pages(block, size), 2U);
        EXPECT_EQ(block[size / 2] + block[size - 1], 0);
        std::memset(block, 1, size / 8); // the next round may be given these pages again
        std::free(block);
    }
}

INSTANTIATE_TEST_SUITE_P(Hook, SparseBlocks, testing::Bool());

// Locked pages can't be dropped.
TEST(SparseBlocks, LockedMemoryReadsZero) {
    constexpr std::size_t size = 1'000'000;
    ASSERT_EQ(mlockall(MCL_FUTURE | MCL_ONFAULT), 0);
    for (int round = 0; round != 3; ++round) {
        char* const block = static_cast<char*>(std::calloc(1, size));
        EXPECT_EQ(std::count(block, block + size, 0), static_cast<long>(size));
        std::memset(block, 1, size / 2);
        std::free(block);
    }
    munlockall();
}

} // namespace
