// Which events arrive, in which order, and that no callback can spoil what the caller of malloc gets.
#include "tests/unit/tbbamalloc/recorded_events.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
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

TEST(Events, ComeInOrder) {
    ASSERT_TRUE(tbbk_process_malloc_is_shim());
    const std::pair<void (*)(), const char*> sequences[] = {
        {[] { std::free(std::malloc(100)); }, "+A100 -A0"},
        {[] { std::free(std::calloc(10, 5)); }, "+A50 -A0"},
        {[] { std::free(std::aligned_alloc(64, 128)); }, "+A128 -A0"},
        {[] { std::free(std::realloc(std::malloc(100), 110)); }, "+A100 -A0"}, // in its slot
        {[] { std::free(std::realloc(std::malloc(100), 5000)); }, "+A100 +B5000 -A0 -B0"},
        {[] { std::free(std::realloc(std::malloc(5000), 10)); }, "+A5000 +B10 -A0 -B0"},
        {[] { EXPECT_EQ(std::realloc(std::malloc(20), 0), nullptr); }, "+A20 -A0"},
        {[] { std::free(nullptr); }, ""},
        {[] { EXPECT_EQ(std::malloc(SIZE_MAX), nullptr); }, ""},
        {[] { std::free(std::realloc(__libc_malloc(100), 200'000)); }, ""}, // a foreign block
    };
    for (const auto& [run, events] : sequences) {
        RECORDED_EVENTS recorded;
        run();
        EXPECT_EQ(render(recorded), events);
    }
}

// The stack of an event begins behind its own entry point's frame, also when there was one inside.
TEST(Events, AllocationsOfTheCallbackNest) {
    static unsigned deepest;
    deepest = 0;
    RECORDED_EVENTS recorded([](const RECORDED_EVENTS::EVENT& event) {
        deepest = std::max(deepest, tbbk_entry_depth());
        const void* const frame = tbbk_entry_frame();
        if (event.requested == 100)
            std::free(std::malloc(7));
        EXPECT_EQ(tbbk_entry_frame(), frame);
    });
    std::free(std::malloc(100));
    EXPECT_EQ(render(recorded), "+A100 +B7 -B0 -A0");
    EXPECT_EQ(deepest, 2U);
    EXPECT_EQ(tbbk_entry_depth(), 0U);
    EXPECT_EQ(tbbk_entry_frame(), nullptr);
}

TEST(Events, OfFreesAreNoticedBefore) {
    static std::string heard; // too short to allocate
    heard.clear();
    const auto free_one = [] { std::free(std::malloc(100)); };
    tbbk_set_free_notice([](const void*) { heard += 'n'; });
    free_one();
    {
        const RECORDED_EVENTS recorded(
            [](const RECORDED_EVENTS::EVENT& event) { heard += event.is_allocation ? '+' : '-'; });
        free_one();
        void* const moved = std::realloc(std::malloc(100), 5000);
        tbbk_set_free_notice(nullptr);
        std::free(moved);
    }
    EXPECT_EQ(heard, "+n-++--");
}

// Sizes on both sides of every change of method.
TEST(Events, ScribblingCallbackSpoilsNothing) {
    const auto expect_filled = [](const char* block, std::size_t size, char with) {
        EXPECT_TRUE(std::all_of(block, block + size, [with](char byte) { return byte == with; }));
    };
    for (const std::size_t size : {24UL, 8128UL, 100'000UL, 131'072UL, 3'000'000UL, 17'000'000UL}) {
        SCOPED_TRACE(size);
        RECORDED_EVENTS recorded([](const RECORDED_EVENTS::EVENT& event) {
            std::memset(event.block, 0xAA, event.allocated); // as a debugging aid would
            errno = EIO;
        });
        for (int round = 0; round != 2; ++round) { // the second block is a used one
            errno = 0;
            auto* block = static_cast<char*>(std::calloc(size, 1));
            expect_filled(block, size, 0);
            std::memset(block, 0x5C, size);
            for (const std::size_t next : {3 * size, size / 2}) {
                block = static_cast<char*>(std::realloc(block, next));
                expect_filled(block, std::min(size, next), 0x5C);
            }
            std::free(block);
            EXPECT_EQ(errno, 0) << "it belongs to the caller";
        }
    }
}

// Both events of a block tell the size of its slot, wherever in it the block begins, and a block that has
// pages of its own never tells the size of a slot. What is known of one request says nothing of the next.
TEST(Events, TellTheSameSlotForEverySizeAndAlignment) {
    for (std::size_t alignment = 4; alignment <= 16384; alignment *= 2)
        for (std::size_t size = 0; size <= 16384; size += 7) {
            RECORDED_EVENTS recorded;
            void* const block = alignment == 4   ? std::malloc(size)
                                : alignment == 8 ? std::calloc(size, 1)
                                                 : memalign(alignment, size);
            const std::size_t usable = malloc_usable_size(block);
            std::free(block);
            const std::uint64_t told = recorded.events[0].allocated;
            EXPECT_EQ(told, recorded.events[1].allocated) << size << " at " << alignment;
            EXPECT_GE(told, std::max(usable, size)) << size << " at " << alignment;
            EXPECT_TRUE(alignment > 8 || told == usable) << size << " at " << alignment;
            // Slots fill slabs of 16384 bytes from their end.
            const std::size_t to_end = 16384 - reinterpret_cast<std::uintptr_t>(block) % 16384;
            EXPECT_TRUE(told > 8128 || (to_end - usable) % told == 0) << size << " at " << alignment;
        }
    void* const shrunk = std::realloc(std::malloc(100'000), 2000);
    EXPECT_GT(malloc_usable_size(shrunk), 8128U);
    std::free(shrunk);
}

// Straight from the system, amid the heap's own: once the neighbour below has gone, nothing is mapped where
// the heap looks for its header.
TEST(Events, LargeForeignBlocksAreToldApart) {
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    const std::size_t blocks_before = mallinfo2().hblks;
    std::vector<void*> own;
    std::vector<void*> foreign;
    for (std::size_t i = 0; i != 400; ++i) {
        if (i % 20 == 0)
            own.push_back(std::malloc(4'000'000));
        const std::size_t size = 135'168 + i % 7 * 4096;
        foreign.push_back(i % 16 != 1 ? __libc_malloc(size) : __libc_memalign(8192, size));
    }
    for (std::size_t i = 0; i != 400; i += 2)
        __libc_free(foreign[i]);
    const RECORDED_EVENTS recorded;
    for (std::size_t i = 1; i != 401; i += 2) {
        EXPECT_GE(malloc_usable_size(foreign[i]), 135'168U);
        std::free(i % 4 == 1 ? foreign[i] : std::realloc(foreign[i], 300'000));
    }
    EXPECT_EQ(recorded.count, 0U);
    EXPECT_EQ(mallinfo2().hblks, blocks_before);
    std::for_each(own.begin(), own.end(), std::free);
}

} // namespace
