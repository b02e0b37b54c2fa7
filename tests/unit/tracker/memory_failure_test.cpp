// The tracker's own heap runs out inside events, at every allocation in turn: nothing escapes, nothing stays
// locked, and what is charged still adds up.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"

#include <cstdlib>
#include <new>

namespace {

// Allocations of the tracker that still succeed; below 0, all do.
thread_local int allocations_left = -1;

bool next_allocation_fails() {
    if (mem_thread_state.in_tracker_byte == 0 || allocations_left < 0)
        return false;
    if (allocations_left == 0)
        return true;
    --allocations_left;
    return false;
}

} // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const block = next_allocation_fails() ? nullptr : std::malloc(size);
    if (block == nullptr)
        throw std::bad_alloc();
    return block;
}
// The library's own nothrow form may not come through the one above.
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return std::malloc(size);
}
[[gnu::noinline]] void operator delete(void* block) noexcept {
    std::free(block);
}
[[gnu::noinline]] void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}

class MEMORY_FAILURE_TEST : public TRACKER_TEST {};

TEST_F(MEMORY_FAILURE_TEST, BlocksGoUnrecordedAndCountersStayBalanced) {
    start(MEM_GRANULARITY_ALL);
    for (int left = 0; left < 12; ++left) {
        SCOPED_TRACE(left);
        const auto failing_until = static_cast<std::uint64_t>(left);
        // A new site each time, so that every kind of allocation has its turn.
        const std::uint64_t address = 0x5000 + failing_until;
        fake_define_symbol(address,
                           {"f" + std::to_string(left), "/src/f.cpp", 1, "m" + std::to_string(left)});
        const std::uint64_t block = 0xA0000 + 0x1001 * failing_until;
        {
            const FAKE_STACK_SCOPE stack({address});
            fake_captures().reserve(fake_captures().size() + 2);
            allocations_left = left;
            fake_allocate(block, 64, 64);
            allocations_left = -1;
        }
        EXPECT_EQ(mem_thread_state.in_tracker_byte, 0);
        EXPECT_EQ(pbin_stats->entry(0).current_bytes.load(), 64);
        MEM_ADDRESS_TRACKER site;
        const bool is_known = mem_get_address_tracker(reinterpret_cast<void*>(block), site);
        EXPECT_EQ(is_known ? site.current_bytes : catch_all().current_bytes, 64);
        release(block, 64);
        EXPECT_EQ(catch_all().current_bytes, 0);
        EXPECT_EQ(catch_all().current_blocks, 0);
        for (const std::string& module : {"m" + std::to_string(left), std::string("OTHER")})
            if (MEMORY_TRACKER_BASE record; mem_get_module_tracker(module, record)) {
                EXPECT_EQ(record.current_blocks, 0) << module;
                EXPECT_EQ(record.current_bytes, 0) << module;
            }
        EXPECT_EQ(pbin_stats->entry(0).current_bytes.load(), 0);
    }
    EXPECT_NE(catch_all().cumulative_blocks, 0); // it did fail
    allocate(0xA000, 64, {PARSE});
    EXPECT_EQ(rendered_site(PARSE), "parse cur 64/1 max 64/1 peak 0/0 cum 64/1 req 64 mis 0");
}
