// Which events arrive, in which order, and that no callback can spoil what the caller of malloc gets.
#include "tests/unit/tbbamalloc/recorded_events.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

extern "C" void* __libc_malloc(std::size_t size);
extern "C" void __libc_free(void* block);
extern "C" void* __libc_memalign(std::size_t alignment, std::size_t size);

namespace {

// One letter an event: A and B for the first and second block, with + or - and the requested size.
std::string render(const RECORDED_EVENTS& recorded) {
    tbbk_set_mem_tracker_callback(nullptr);
    std::string text;
    for (std::size_t i = 0; i != recorded.count; ++i) {
        const RECORDED_EVENTS::EVENT& event = recorded.events[i];
        text += text.empty() ? "" : " ";
        text += event.is_allocation ? "+" : "-";
        text += event.block == recorded.events[0].block ? "A" : "B";
        text += std::to_string(event.requested);
        EXPECT_GE(event.allocated, event.requested);
    }
    return text;
}

void* aligned_block() {
    return std::aligned_alloc(64, 128);
}

void* posix_block() {
    void* block = nullptr;
    EXPECT_EQ(posix_memalign(&block, 32, 50), 0);
    return block;
}

struct SEQUENCE {
    const char* name;
    void (*run)();
    const char* events;
};

class Events : public testing::TestWithParam<SEQUENCE> {};

TEST_P(Events, ComeInOrder) {
    ASSERT_TRUE(tbbk_process_malloc_is_shim());
    std::string text;
    {
        RECORDED_EVENTS recorded;
        GetParam().run();
        text = render(recorded);
    }
    EXPECT_EQ(text, GetParam().events);
}

const SEQUENCE sequences[] = {
    {"malloc", [] { std::free(std::malloc(100)); }, "+A100 -A0"},
    {"calloc", [] { std::free(std::calloc(10, 5)); }, "+A50 -A0"},
    {"aligned_alloc", [] { std::free(aligned_block()); }, "+A128 -A0"},
    {"posix_memalign", [] { std::free(posix_block()); }, "+A50 -A0"},
    {"realloc_in_its_slot", [] { std::free(std::realloc(std::malloc(100), 110)); }, "+A100 -A0"},
    {"realloc_moves", [] { std::free(std::realloc(std::malloc(100), 5000)); }, "+A100 +B5000 -A0 -B0"},
    {"realloc_shrinks", [] { std::free(std::realloc(std::malloc(5000), 10)); }, "+A5000 +B10 -A0 -B0"},
    {"realloc_frees", [] { EXPECT_EQ(std::realloc(std::malloc(20), 0), nullptr); }, "+A20 -A0"},
    {"free_of_null", [] { std::free(nullptr); }, ""},
    {"failures", [] { EXPECT_EQ(std::malloc(SIZE_MAX), nullptr); }, ""},
    {"foreign_block", [] { std::free(std::realloc(__libc_malloc(100), 200'000)); }, ""},
};

INSTANTIATE_TEST_SUITE_P(Sequences, Events, testing::ValuesIn(sequences),
                         [](const auto& test) { return std::string(test.param.name); });

TEST(Events, AllocationsOfTheCallbackNest) {
    static unsigned deepest;
    deepest = 0;
    RECORDED_EVENTS recorded([](const RECORDED_EVENTS::EVENT& event) {
        deepest = std::max(deepest, tbbk_entry_depth());
        if (event.requested == 100)
            std::free(std::malloc(7));
    });
    std::free(std::malloc(100));
    EXPECT_EQ(render(recorded), "+A100 +B7 -B0 -A0");
    EXPECT_EQ(deepest, 2U);
    EXPECT_EQ(tbbk_entry_depth(), 0U);
}

// Sizes on both sides of every change of method.
TEST(Events, ScribblingCallbackSpoilsNothing) {
    const auto expect_filled = [](const unsigned char* block, std::size_t size, unsigned char with) {
        EXPECT_EQ(static_cast<std::size_t>(std::count(block, block + size, with)), size);
    };
    for (const std::size_t size : {24UL, 8128UL, 100'000UL, 131'072UL, 3'000'000UL, 17'000'000UL}) {
        SCOPED_TRACE(size);
        RECORDED_EVENTS recorded(RECORDED_EVENTS::scribble);
        for (int round = 0; round != 2; ++round) { // the second block is a used one
            errno = 0;
            auto* block = static_cast<unsigned char*>(std::calloc(size, 1));
            EXPECT_EQ(recorded.events[recorded.count - 1].allocated, malloc_usable_size(block));
            expect_filled(block, size, 0);
            std::memset(block, 0x5C, size);
            for (const std::size_t next : {3 * size, size / 2}) {
                block = static_cast<unsigned char*>(std::realloc(block, next));
                expect_filled(block, std::min(size, next), 0x5C);
            }
            const std::size_t usable = malloc_usable_size(block);
            std::free(block);
            EXPECT_EQ(recorded.events[recorded.count - 1].allocated, usable);
            EXPECT_EQ(errno, 0) << "it belongs to the caller";
        }
    }
}

// Straight from the system, amid the heap's own: once the neighbour below has gone, nothing is mapped where
// the heap looks for its header.
TEST(Events, LargeForeignBlocksAreToldApart) {
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    std::vector<void*> own;
    std::vector<void*> foreign;
    const auto add_own = [&] {
        for (int i = 0; i != 20; ++i)
            own.push_back(std::malloc(4'000'000));
    };
    add_own();
    for (std::size_t i = 0; i != 400; ++i) {
        const std::size_t size = 135'168 + i % 7 * 4096;
        foreign.push_back(i % 16 != 1 ? __libc_malloc(size) : __libc_memalign(8192, size));
    }
    add_own();
    for (std::size_t i = 0; i != foreign.size(); i += 2)
        __libc_free(foreign[i]);
    const RECORDED_EVENTS recorded;
    for (std::size_t i = 1; i != 401; i += 2) {
        EXPECT_GE(malloc_usable_size(foreign[i]), 135'168U);
        std::free(i % 4 == 1 ? foreign[i] : std::realloc(foreign[i], 300'000));
    }
    EXPECT_EQ(recorded.count, 0U);
    std::for_each(own.begin(), own.end(), std::free);
}

const void* seen_frame = nullptr;

// The word below the entry frame is the return address into the caller of malloc.
TEST(Events, EntryFrameLeadsToTheCaller) {
    struct CALLER {
        [[gnu::noinline]] static void* run() {
            void* const block = std::malloc(10);
            asm volatile("" ::: "memory");
            return block;
        }
    };
    {
        RECORDED_EVENTS recorded([](const RECORDED_EVENTS::EVENT& event) {
            if (event.is_allocation)
                seen_frame = static_cast<void* const*>(tbbk_entry_frame())[-1];
        });
        std::free(CALLER::run());
    }
    const auto caller = reinterpret_cast<std::uintptr_t>(&CALLER::run);
    EXPECT_GT(reinterpret_cast<std::uintptr_t>(seen_frame), caller);
    EXPECT_LT(reinterpret_cast<std::uintptr_t>(seen_frame), caller + 64);
    EXPECT_EQ(tbbk_entry_frame(), nullptr);
}

} // namespace
