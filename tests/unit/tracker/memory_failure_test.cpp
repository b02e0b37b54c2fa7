// The heap runs out, at every allocation in turn. Inside events nothing escapes, nothing stays locked, and
// what is charged still adds up; the opening of a bin fails as a whole.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker_profile_bins/profile_bins.h"

#include <algorithm>
#include <cstdlib>
#include <new>
#include <sstream>

namespace {

// Allocations that still succeed; below 0, all do. Those outside of events always do unless the host's fail
// too.
thread_local int allocations_left = -1;
thread_local bool host_fails_too = false;

bool next_allocation_fails() {
    if (allocations_left < 0 || (mem_thread_state.in_tracker_byte == 0 && !host_fails_too))
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

TEST_F(MEMORY_FAILURE_TEST, ABlockWithoutARecordIsChargedToRoot) {
    start(MEM_GRANULARITY_PER_BIN_DETAILED);
    // Far behind what the tables have ever charged.
    for (int bin = 0; bin < 40; ++bin)
        const MEM_PROFILE_BIN_SCOPE scope("bin " + std::to_string(bin), "tag " + std::to_string(bin));
    const MEM_PROFILE_BIN_SCOPE late("late", "late");
    const std::uint32_t late_id = MEM_PROFILE_BINS::get_instance().m_bins().get_curr_id();
    for (int left = 0; left < 6; ++left) {
        SCOPED_TRACE(left);
        const std::uint64_t block = 0xA0000 + 0x1001 * static_cast<std::uint64_t>(left);
        allocations_left = left;
        fake_allocate(block, 64, 64);
        allocations_left = -1;
        for (MEM_PB_STATS_TABLE* const table : {pbin_stats, ptag_stats})
            EXPECT_EQ(table->figures(MEM_ROOT_ID).current_bytes + table->figures(late_id).current_bytes, 64);
        release(block, 64);
        for (MEM_PB_STATS_TABLE* const table : {pbin_stats, ptag_stats}) {
            EXPECT_EQ(table->figures(MEM_ROOT_ID).current_bytes, 0);
            EXPECT_EQ(table->figures(late_id).current_bytes, 0);
        }
    }
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
        const std::string name =
            "a bin with a name that is too long for a small string " + std::to_string(left);
        const std::string tag =
            "a tag with a name that is too long for a small string " + std::to_string(left);
        bool is_open = true;
        allocations_left = left;
        host_fails_too = true;
        try {
            mem_open_profile_bin(name, tag);
        } catch (const std::bad_alloc&) {
            is_open = false;
        }
        allocations_left = -1;
        host_fails_too = false;
        EXPECT_EQ(bins.m_bins().get_curr_name(), is_open ? tag + "::" + name : "Root::outer");
        EXPECT_EQ(bins.m_tags().get_curr_name(), is_open ? tag : "Root");
        EXPECT_EQ(bins.labels.stack.size(), is_open ? 1U : 0U);
        EXPECT_EQ(std::distance(bins.stack.begin(), bins.stack.end()), is_open ? 2 : 1);
        failures += !is_open;
        std::uint64_t figures[3];
        if (is_open)
            mem_close_profile_bin(tag, &figures[0], &figures[1], &figures[2]);
    }
    EXPECT_GT(failures, 5);
    EXPECT_LT(failures, 30);
}

// A sample is taken in all series or in none, so the rows stay in line.
TEST_F(MEMORY_FAILURE_TEST, SamplesAreTakenWholeOrNotAtAll) {
    set_variable("mem_profile_library_snapshot_period", "1");
    start(MEM_GRANULARITY_PER_LIBRARY | MEM_GRANULARITY_PER_BIN_DETAILED);
    testing::internal::CaptureStdout();
    for (int left = 0; left < 40; ++left) {
        const std::uint64_t address = 0x5000 + static_cast<std::uint64_t>(left);
        fake_define_symbol(address, {"f", "/src/f.cpp", 1, "m" + std::to_string(left)});
        const FAKE_STACK_SCOPE stack({address});
        fake_captures().reserve(fake_captures().size() + 2);
        allocations_left = left % 20;
        fake_allocate(0xA0000 + 0x1001 * static_cast<std::uint64_t>(left), 64, 64);
        allocations_left = -1;
    }
    testing::internal::GetCapturedStdout();
    mem_user_snapshot_tracking_data();
    std::ostringstream plain, detailed, tags;
    ASSERT_TRUE(mem_dump_tbb_module_tracking(plain, detailed));
    ASSERT_TRUE(mem_dump_tbb_profile_bin_tag_timeline_tracking(plain, tags));
    const auto cells_of_last_row = [](const std::string& text) {
        const std::size_t end = text.find("\nTime spent");
        std::istringstream cells(text.substr(text.rfind('\n', end - 1), end - text.rfind('\n', end - 1)));
        std::string label;
        std::vector<std::int64_t> figures;
        cells >> label;
        for (std::int64_t figure; cells >> figure;)
            figures.push_back(figure);
        return figures;
    };
    // A module's record can be missing for want of memory, but one that is sampled holds one block.
    const std::vector<std::int64_t> modules = cells_of_last_row(detailed.str());
    EXPECT_GE(modules.size(), 20U);
    EXPECT_EQ(std::ranges::count(modules, 64), static_cast<std::ptrdiff_t>(modules.size()) - 1); // OTHER
    EXPECT_EQ(cells_of_last_row(tags.str()), std::vector<std::int64_t>{40 * 64});
}
