// The heap runs out, at every allocation in turn. Inside events nothing escapes, nothing stays locked, and
// what is charged still adds up; the opening of a bin fails as a whole.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/mem_tbb_tracker/events/threshold_peak.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker_profile_bins/profile_bins.h"

#include <vbx/mem/peaks.h>

#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <new>

namespace {

// Of this thread, those that still succeed; below 0, all do.
thread_local int allocations_left = -1;

// With so many allocations of any kind left.
template <class CALL>
bool succeeds_with(int left, CALL call) {
    allocations_left = left;
    bool succeeds = true;
    try {
        call();
    } catch (const std::bad_alloc&) {
        succeeds = false;
    }
    allocations_left = -1;
    return succeeds;
}

bool next_allocation_fails() {
    return allocations_left >= 0 && (allocations_left == 0 || allocations_left-- == 0);
}

} // namespace

[[gnu::noinline]] void* operator new(std::size_t size) {
    void* const block = next_allocation_fails() ? nullptr : std::malloc(size);
    if (block == nullptr)
        throw std::bad_alloc();
    return block;
}
[[gnu::noinline]] void* operator new(std::size_t size, std::align_val_t alignment) {
    void* const block =
        next_allocation_fails() ? nullptr : memalign(static_cast<std::size_t>(alignment), size);
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
[[gnu::noinline]] void operator delete(void* block, std::align_val_t) noexcept {
    std::free(block);
}
[[gnu::noinline]] void operator delete(void* block, std::size_t, std::align_val_t) noexcept {
    std::free(block);
}

class MEMORY_FAILURE_TEST : public TRACKER_TEST {
  protected:
    // Places of the block map that nobody was in before. Gives the block.
    static std::uint64_t allocate_with(int left, std::uint64_t number, FAKE_STACK stack) {
        fake_captures().reserve(fake_captures().size() + 2);
        const std::uint64_t block = 0x2000000 * (number + 1);
        allocations_left = left;
        fake_allocate(block, 64, 64, std::move(stack));
        allocations_left = -1;
        EXPECT_EQ(mem_thread_state.in_tracker_byte, 0);
        return block;
    }
    // A new site and module each time, so that every kind of allocation has its turn.
    static FAKE_STACK new_site(std::uint64_t number) {
        fake_define_symbol(0x5000 + number, {"f", "/src/f.cpp", 1, "m" + std::to_string(number)});
        return {0x5000 + number};
    }
};

TEST_F(MEMORY_FAILURE_TEST, BlocksGoUnrecordedAndCountersStayBalanced) {
    start(MEM_GRANULARITY_ALL);
    // Far behind what the tables have ever charged.
    for (int bin = 0; bin < 40; ++bin)
        const MEM_PROFILE_BIN_SCOPE scope("bin " + std::to_string(bin), "tag " + std::to_string(bin));
    const MEM_PROFILE_BIN_SCOPE late("late", "late");
    const std::uint32_t late_id = MEM_PROFILE_BINS::get_instance().m_bins().get_curr_id();
    const auto expect_bins_hold = [late_id](std::int64_t bytes) {
        for (MEM_PB_STATS_TABLE* const table : {pbin_stats, ptag_stats})
            EXPECT_EQ(table->figures(MEM_ROOT_ID).current_bytes + table->figures(late_id).current_bytes,
                      bytes);
    };
    allocate(0xB0, 64, {PARSE}); // a site that is known by then, as those of most blocks are
    release(0xB0, 64);
    for (std::uint64_t number = 0; number < 40; ++number) {
        SCOPED_TRACE(number);
        const std::string module = number < 20 ? "m" + std::to_string(number) : "parser";
        const std::uint64_t block = allocate_with(static_cast<int>(number % 20), number,
                                                  number < 20 ? new_site(number) : FAKE_STACK{PARSE});
        expect_bins_hold(64);
        MEM_ADDRESS_TRACKER site;
        const bool is_known = mem_get_address_tracker(reinterpret_cast<void*>(block), site);
        EXPECT_EQ(is_known ? site.current_bytes : catch_all().current_bytes, 64);
        release(block, 64);
        expect_bins_hold(0);
        EXPECT_EQ(rendered_sites().find(" cur 64/"), std::string::npos);
        EXPECT_EQ(catch_all().current_blocks, 0);
        EXPECT_EQ(module_record("OTHER").current_bytes, 0);
        if (MEMORY_TRACKER_BASE record; mem_get_module_tracker(module, record)) {
            EXPECT_EQ(record.current_bytes, 0);
        }
    }
    // Some did fail, and some did not.
    EXPECT_NE(catch_all().cumulative_blocks, 0);
    EXPECT_NE(module_record("m19").cumulative_blocks, 0);
    EXPECT_NE(pbin_stats->figures(MEM_ROOT_ID).cumulative_bytes, 0);
    EXPECT_NE(pbin_stats->figures(late_id).cumulative_bytes, 0);
}

TEST_F(MEMORY_FAILURE_TEST, AnOpenThatFailsLeavesNothingOpen) {
    start(MEM_GRANULARITY_ALL);
    MEM_PROFILE_BINS& bins = MEM_PROFILE_BINS::get_instance();
    mem_open_profile_bin("outer", "");
    int failures = 0;
    for (int left = 0; left < 30; ++left) {
        SCOPED_TRACE(left);
        // New and long names, so that every kind of allocation has its turn.
        const std::string name = "a name that is too long for a small string " + std::to_string(left);
        const bool is_open = succeeds_with(left, [&name] { mem_open_profile_bin(name, name); });
        failures += !is_open;
        EXPECT_EQ(bins.m_bins().get_curr_name(), is_open ? name + "::" + name : "Root::outer");
        EXPECT_EQ(bins.m_tags().get_curr_name(), is_open ? name : "Root");
        EXPECT_EQ(bins.labels.stack.size(), is_open ? 1U : 0U);
        EXPECT_EQ(std::distance(bins.stack.begin(), bins.stack.end()), is_open ? 2 : 1);
        if (is_open)
            close_bin(name);
    }
    EXPECT_GT(failures, 5);
    EXPECT_LT(failures, 30);
}

TEST_F(MEMORY_FAILURE_TEST, HostsCallsFailWithNothingKeptAndNothingLocked) {
    start(MEM_GRANULARITY_PER_FILELINE);
    allocate(0xA000, 4000, {PARSE});
    release(0xF000, 0);
    int failures = 0;
    for (bool is_kept = false; !is_kept; failures += !is_kept) {
        is_kept = succeeds_with(failures, mem_tbb_tracking_flush_peak);
        EXPECT_EQ(mem_flushed_peak_bytes, is_kept ? 4000 : 0);
        EXPECT_EQ(catch_all().current_blocks, -1);
    }
    EXPECT_GE(failures, 2);
    mem_reset_tracking_entries(); // takes the catch-all record away
    EXPECT_FALSE(succeeds_with(0, catch_all));
    EXPECT_EQ(catch_all().current_blocks, 0);
    EXPECT_EQ(mem_thread_state.block_byte, 0);
}

// A sample is taken in all series or in none, so the rows stay in line.
TEST_F(MEMORY_FAILURE_TEST, SamplesAreTakenWholeOrNotAtAll) {
    start(MEM_GRANULARITY_PER_LIBRARY | MEM_GRANULARITY_PER_BIN_DETAILED, "1");
    testing::internal::CaptureStdout();
    for (std::uint64_t block = 0; block < 40; ++block)
        allocate_with(static_cast<int>(block % 20), block, new_site(block));
    testing::internal::GetCapturedStdout();
    mem_user_snapshot_tracking_data();
    // A module's record can be missing for want of memory, but one that is sampled holds one block.
    const std::string rows = rows_of(mem_dump_tbb_module_tracking);
    const std::string last_row = rows.substr(rows.rfind('\n', rows.size() - 2));
    const auto blocks = std::ranges::count(last_row, '6');
    EXPECT_GE(blocks, 20);
    EXPECT_EQ(blocks, std::ranges::count(last_row, '\t') - 1); // OTHER
    EXPECT_TRUE(rows_of(mem_dump_tbb_profile_bin_tag_timeline_tracking).ends_with("\nRoot\t2560\n"));
}
