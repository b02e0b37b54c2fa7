// The chunk allocator in both modes, over random requests, against a model that only keeps where the chunk
// stands and how much of it is left.

#include <vbx/mem.h>

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr std::uint64_t CHUNK = 32768;

int warnings = 0;

bool count_warning(const char*, const char* format, std::va_list args) {
    std::string text;
    stl_vsprintf(&text, format, args);
    EXPECT_EQ(text,
              "WARNING: More than 500 chunk allocations have failed because they are bigger than one chunk "
              "size in vbx/mem_utils\n");
    return ++warnings > 0;
}

class CHUNK_ALLOC_TEST : public testing::TestWithParam<bool> {
  protected:
    CHUNK_ALLOC_TEST() {
        setenv("mem_utils_no_chunk_allocation", GetParam() ? "off" : "on", 1);
        mem_set_msg_local_vdebug_callback(count_warning);
        allocator = std::make_unique<MEM_UTILS_CHUNK_ALLOC>();
        // Too late.
        setenv("mem_utils_no_chunk_allocation", GetParam() ? "on" : "off", 1);
        EXPECT_EQ(MEM_UTILS_CHUNK_ALLOC().chunk_allocation_is_enabled(), GetParam());
    }

    // One request, its block held against the model and kept.
    void request(std::uint64_t size, std::uint64_t alignment) {
        auto* const block = static_cast<unsigned char*>(allocator->chunk_malloc(size, alignment));
        const auto address = reinterpret_cast<std::uint64_t>(block);
        if (GetParam())
            expect_by_the_rules(address, size, std::max<std::uint64_t>(alignment, 1));
        else if (size == 0)
            size = 8;
        if (size == 0)
            return;
        ASSERT_TRUE(std::all_of(block, block + size, [](unsigned char byte) { return byte == 0; }));
        live.push_back(block);
        std::fill_n(block, size, 0xBB);
    }

    void expect_by_the_rules(std::uint64_t address, std::uint64_t size, std::uint64_t alignment) {
        const std::uint64_t start = (position + alignment - 1) / alignment * alignment;
        if (start + size <= position + left) {
            ASSERT_EQ(address, start);
            left -= start + size - position;
            position = start + size;
        } else if (size <= CHUNK && left < threshold) {
            ASSERT_EQ(address % 16, 0U);
            left = CHUNK - size;
            position = address + size;
        } else {
            ASSERT_EQ(address % alignment, 0U);
            expected_warnings += size > CHUNK && ++oversize > 500;
        }
        ASSERT_EQ(warnings, expected_warnings);
    }

    void give_back() {
        allocator->chunk_free_memory();
        position = left = 0;
        oversize = 0;
        for (void* const block : live)
            allocator->chunk_delete_when_chunking_disabled(block);
        live.clear();
    }

    std::unique_ptr<MEM_UTILS_CHUNK_ALLOC> allocator;
    std::uint64_t position = 0, left = 0, threshold = 100;
    int oversize = 0, expected_warnings = 0;
    std::vector<void*> live;
};

TEST_P(CHUNK_ALLOC_TEST, AgreesWithTheModelAndGivesAllBack) {
    const std::uint64_t seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    const auto bytes_in_use = [] { return mallinfo2().uordblks + mallinfo2().hblkhd; };
    const std::size_t before = bytes_in_use();
    for (int round = 0; round < 30; ++round) {
        allocator->set_fragment_threshold(static_cast<unsigned>(threshold));
        for (int count = 0; count < 700 && !HasFatalFailure(); ++count) {
            const std::uint64_t size =
                random() % 20 == 0 ? CHUNK - 2 + random() % 4 : random() % (1U << random() % 16);
            request(round % 10 == 9 ? size + CHUNK + 1 : size, random() % (random() % 4 == 0 ? 5000 : 32));
        }
        give_back();
        threshold = random() % 4 == 0 ? 0 : random() % 400;
    }
    EXPECT_EQ(warnings > 0, GetParam());
    EXPECT_LT(bytes_in_use(),
              before + 1'000'000); // of many millions; the C library keeps small ones for later
}

// Blocks outlive their object; with no chunk there is nowhere for a block of no bytes.
TEST_P(CHUNK_ALLOC_TEST, LeavesItsBlocksBehind) {
    void* const nothing = allocator->chunk_malloc(0, 8);
    EXPECT_EQ(nothing == nullptr, GetParam());
    allocator->chunk_delete_when_chunking_disabled(nothing);
    char* const block = static_cast<char*>(MEM_UTILS_CHUNK_ALLOC().chunk_malloc(100, 8));
    std::fill_n(block, 100, 'x');
    EXPECT_EQ(block[99], 'x');
    free(block); // the start of a chunk
}

INSTANTIATE_TEST_SUITE_P(Chunking, CHUNK_ALLOC_TEST, testing::Values(true, false));

} // namespace
