// The live-block maps and the tables of bins and tags, alone and under real threads.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/records/block_shards.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"

#include <atomic>
#include <thread>
#include <vector>

namespace {
const void* at(std::uint64_t address) {
    return reinterpret_cast<const void*>(address);
}
} // namespace

TEST(BLOCK_SHARDS_TEST, KeepsTheFirstEntryAndForgetsItWhenTaken) {
    MEM_BLOCK_SHARDS shards;
    shards.insert(at(0x1010), {1, 2});
    shards.insert(at(0x1010), {3, 4});
    shards.insert(at(0x2010), {5, 6}); // the same shard
    EXPECT_EQ(shards.take(at(0x1010)).bin_id, 1U);
    EXPECT_EQ(shards.take(at(0x1010)).bin_id, 0U);
    EXPECT_EQ(shards.take(at(0x2010)).tag_id, 6U);
    EXPECT_EQ(shards.take(at(0x7777)).tag_id, 0U);
}

TEST(PB_STATS_TABLE_TEST, ChargesGrowsAndCredits) {
    MEM_PB_STATS_TABLE table;
    table.subtract(3, 10); // an id that isn't there
    EXPECT_EQ(table.size(), 0U);
    table.add(70000, 10);
    EXPECT_EQ(table.size(), 70001U);
    table.add(70000, 30);
    table.subtract(70000, 25);
    const MEM_PB_STATS stats = table.entry(70000);
    EXPECT_EQ(stats.current_bytes.load(), 15);
    EXPECT_EQ(stats.max_bytes.load(), 40);
    EXPECT_EQ(stats.cumulative_bytes.load(), 40);
    EXPECT_EQ(table.entry(69999).cumulative_bytes.load(), 0);
    EXPECT_EQ(table.entry(70001).cumulative_bytes.load(), 0);
}

TEST(PB_STATS_TABLE_TEST, CopiesPeaks) {
    MEM_PB_STATS_TABLE table;
    table.add(1, 10);
    table.snapshot_peak();
    table.save_peak();
    table.add(1, 90);
    table.snapshot_peak();
    EXPECT_EQ(table.entry(1).peak_bytes.load(), 100);
    table.restore_peak();
    EXPECT_EQ(table.entry(1).peak_bytes.load(), 10);
}

// Shared users of growing tables against exclusive copies: what was copied was one state of the table.
TEST(PB_STATS_TABLE_TEST, ExclusiveCopiesSeeTheTableStill) {
    MEM_PB_STATS_TABLE table;
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (std::uint32_t thread = 0; thread < 3; ++thread)
        threads.emplace_back([&, thread] {
            for (std::uint32_t id = thread; !stop; id = (id + 3) % 5000) {
                table.add(id, 8);
                table.add(id, 8);
                table.subtract(id, 16);
            }
        });
    for (int copy = 0; copy < 200; ++copy) {
        table.snapshot_peak();
        table.save_peak();
    }
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
    table.snapshot_peak();
    for (std::uint32_t id = 0; id < table.size(); ++id)
        ASSERT_EQ(table.entry(id).peak_bytes.load(), 0);
}

class QUERY_TEST : public TRACKER_TEST {};

TEST_F(QUERY_TEST, TellsWhereABlockWasAllocated) {
    MEM_ADDRESS_TRACKER site;
    site.line = 99;
    EXPECT_DEATH(mem_get_address_tracker(at(0xA000), site), "mem_tbb_tracker_is_inited\\(\\)");
    start(MEM_GRANULARITY_ALL);
    allocate(0xA000, 64, {FILTERED, PARSE});
    EXPECT_FALSE(mem_get_address_tracker(at(0xA008), site));
    EXPECT_EQ(site.line, 99U);
    ASSERT_TRUE(mem_get_address_tracker(at(0xA000), site));
    EXPECT_EQ(site.address, PARSE);
    EXPECT_STREQ(site.function_name, "parse");
    EXPECT_STREQ(site.file_name, "/src/parse.cpp");
    EXPECT_STREQ(site.module_name, "parser");
    EXPECT_EQ(site.line, 10U);
    EXPECT_FALSE(site.filtered);
    EXPECT_EQ(site.module_tracker->current_bytes, 64);
    ASSERT_TRUE(mem_get_address_tracker(nullptr, site));
    EXPECT_EQ(site.address, 0U);
    release(0xA000, 64);
    EXPECT_FALSE(mem_get_address_tracker(at(0xA000), site));
}
