// Opening and closing of profile bins: what is current, what a region measures, which bin and tag a block is
// charged to.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker/state/switches.h"
#include "vbx/mem/mem_tbb_tracker_profile_bins/profile_bins.h"

#include <algorithm>
#include <map>
#include <random>
#include <vector>

namespace {

MEM_PB_TABLE& bins() {
    return MEM_PROFILE_BINS::get_instance().m_bins();
}
MEM_PB_TABLE& tags() {
    return MEM_PROFILE_BINS::get_instance().m_tags();
}
std::string current() {
    return tags().get_curr_name() + " | " + bins().get_curr_name();
}

// Closes and gives the three figures, "open close peak".
std::string close_bin(const std::string& tag = {}) {
    std::uint64_t figures[3] = {9, 9, 9};
    mem_close_profile_bin(tag, &figures[0], &figures[1], &figures[2]);
    return std::to_string(figures[0]) + " " + std::to_string(figures[1]) + " " + std::to_string(figures[2]);
}

// Every entry that was ever charged: "Root::a cur 1 max 2 cum 3".
std::string rendered(const MEM_PB_STATS_TABLE& table, const MEM_PB_TABLE& names) {
    std::string text;
    for (std::uint32_t id = 0; id < table.size(); ++id) {
        const MEM_PB_FIGURES row = table.figures(id);
        if (row.cumulative_bytes != 0 || row.current_bytes != 0)
            text += names.name_of(id) + " cur " + std::to_string(row.current_bytes) + " max " +
                    std::to_string(row.max_bytes) + " cum " + std::to_string(row.cumulative_bytes) + "\n";
    }
    return text;
}

constexpr std::uint32_t REGIONS = MEM_GRANULARITY_PER_BIN;
constexpr std::uint32_t CHARGES = MEM_GRANULARITY_PER_BIN_DETAILED;

} // namespace

class PROFILE_BINS_TEST : public TRACKER_TEST {};

TEST_F(PROFILE_BINS_TEST, NamesLiveInTheCurrentTag) {
    start(CHARGES);
    EXPECT_EQ(current(), "Root | Root");
    mem_open_profile_bin("a", "");
    EXPECT_EQ(current(), "Root | Root::a");
    mem_open_profile_bin("a", "t");
    EXPECT_EQ(current(), "t | t::a");
    mem_open_profile_bin("b", "");
    EXPECT_EQ(current(), "t | t::b");
    // The stacks move independently: the tag goes with the first close that names it.
    close_bin("t");
    EXPECT_EQ(current(), "Root | t::a");
    close_bin();
    EXPECT_EQ(current(), "Root | Root::a");
    mem_open_profile_bin("", "T"); // another tag than t; a bin may have no name of its own
    EXPECT_EQ(current(), "T | T::");
    mem_open_profile_bin("a", "T"); // one tag twice takes two closes
    mem_open_profile_bin("a", "T");
    close_bin("T");
    close_bin("T");
    EXPECT_EQ(current(), "T | T::");
    close_bin("T");
    close_bin();
    EXPECT_EQ(current(), "Root | Root");
}

TEST_F(PROFILE_BINS_TEST, IdsAreDenseAndStay) {
    start(CHARGES);
    for (int round = 0; round < 2; ++round) {
        for (const char* name : {"a", "b", "a"})
            mem_open_profile_bin(name, name);
        for (const char* name : {"a", "b", "a"})
            close_bin(name);
    }
    EXPECT_EQ(bins().size(), 3U);
    EXPECT_EQ(tags().size(), 3U);
    EXPECT_EQ(bins().name_of(0), "Root");
    EXPECT_EQ(bins().name_of(2), "b::b");
    EXPECT_EQ(tags().name_of(2), "b");
    EXPECT_EQ(bins().name_of(3), "Other");
}

TEST_F(PROFILE_BINS_TEST, RegionsNest) {
    start(REGIONS);
    allocate(0xA000, 500, {});
    release(0xA000, 500);
    allocate(0xB000, 100, {});
    MEM_PROFILE_BIN_SCOPE outer("outer", "t");
    allocate(0xC000, 200, {});
    {
        MEM_PROFILE_BIN_SCOPE inner("inner");
        allocate(0xD000, 1000, {});
        release(0xD000, 1000);
        release(0xC000, 200);
        const MEM_PROFILE_BIN_FIGURES& figures = inner.close();
        EXPECT_EQ(figures.bytes_at_open, 300U);
        EXPECT_EQ(figures.bytes_at_close, 100U);
        EXPECT_EQ(figures.local_peak_bytes, 1300U);
    }
    // The inner bin was closed once only, and its peak is the outer one's too.
    const MEM_PROFILE_BIN_FIGURES& figures = outer.close();
    EXPECT_EQ(figures.bytes_at_open, 100U);
    EXPECT_EQ(figures.bytes_at_close, 100U);
    EXPECT_EQ(figures.local_peak_bytes, 1300U);
    EXPECT_EQ(mem_get_local_peak().bytes.load(), 1300);
    EXPECT_TRUE(MEM_PROFILE_BINS::get_instance().stack.empty());
}

TEST_F(PROFILE_BINS_TEST, EachMechanismHasItsSwitch) {
    mem_open_profile_bin("a", "t"); // before the start
    EXPECT_EQ(close_bin("t"), "0 0 0");
    start(0);
    mem_open_profile_bin("a", "t");
    EXPECT_EQ(current(), "Root | Root");
    EXPECT_EQ(close_bin("anything"), "0 0 0");
    mem_bin_tag_tracking_flag = true;
    mem_open_profile_bin("a", "t");
    EXPECT_EQ(current(), "t | t::a");
    EXPECT_EQ(close_bin("t"), "0 0 0");
    mem_bin_tag_tracking_flag = false;
    mem_set_tbb_memory_tracking_enabled(true);
    mem_enable_tracking(MEM_GRANULARITY_PER_BIN);
    allocate(0xA000, 64, {});
    mem_open_profile_bin("a", "t");
    EXPECT_EQ(current(), "Root | Root");
    EXPECT_EQ(close_bin("t"), "64 64 64");
    // The end clears both switches: bins that are still open then are closed for nothing.
    mem_open_profile_bin("a", "t");
    mem_shutdown_tbb_tracking();
    EXPECT_EQ(close_bin("t"), "0 0 0");
}

TEST_F(PROFILE_BINS_TEST, UnbalancedCallsEndTheProcess) {
    start(REGIONS | CHARGES);
    EXPECT_DEATH(close_bin(), "!stack.empty\\(\\)");
    mem_open_profile_bin("a", "t");
    EXPECT_DEATH(close_bin("T"), "name == get_curr_name\\(\\)");
    mem_memory_tracking_flag = false;
    close_bin("t");
    EXPECT_DEATH(close_bin(), "!m_pb_id_stack.empty\\(\\)");
}

TEST_F(PROFILE_BINS_TEST, ABlockStaysWithTheBinOfItsAllocation) {
    start(CHARGES);
    allocate(0xA000, 10, {});
    mem_open_profile_bin("a", "t");
    allocate(0xB000, 200, {}, 150);
    mem_open_profile_bin("never charged", "");
    mem_open_profile_bin("b", "");
    allocate(0xC000, 3000, {});
    release(0xA000, 10);
    release(0xFF00, 7); // nobody knows this one
    close_bin();
    close_bin();
    close_bin("t");
    release(0xC000, 3000);
    EXPECT_EQ(rendered(*pbin_stats, bins()), "Root cur -7 max 10 cum 10\n"
                                             "t::a cur 200 max 200 cum 200\n"
                                             "t::b cur 0 max 3000 cum 3000\n");
    EXPECT_EQ(rendered(*ptag_stats, tags()), "Root cur -7 max 10 cum 10\n"
                                             "t cur 200 max 3200 cum 3200\n");
    EXPECT_EQ(pbin_stats->size(), 4U); // up to the last one that was charged
}

TEST_F(PROFILE_BINS_TEST, ThereMayBeMoreBinsThanSixteenBitsHold) {
    start(CHARGES);
    constexpr std::uint32_t COUNT = 70000;
    for (std::uint32_t bin = 1; bin <= COUNT; ++bin) {
        mem_open_profile_bin(std::to_string(bin), "");
        if (bin % 10000 == 0)
            allocate(0x10 * bin, bin, {});
        close_bin();
    }
    EXPECT_EQ(bins().name_of(65536), "Root::65536");
    EXPECT_EQ(pbin_stats->size(), COUNT + 1);
    EXPECT_EQ(pbin_stats->figures(COUNT).current_bytes, COUNT);
    EXPECT_EQ(pbin_stats->figures(COUNT - 1).cumulative_bytes, 0);
    release(0x10 * COUNT, COUNT);
    EXPECT_EQ(pbin_stats->figures(COUNT).current_bytes, 0);
}

// ---- a random host against a model as simple as can be

namespace {

struct MODEL_TABLE {
    struct FIGURES {
        std::int64_t current = 0, max = 0, cumulative = 0;
    };
    std::vector<std::string> open{"Root"};
    std::vector<std::string> names{"Root"}; // in the order of their first opening
    std::map<std::string, FIGURES> figures;

    void push(const std::string& name) {
        open.push_back(name);
        if (std::ranges::find(names, name) == names.end())
            names.push_back(name);
    }
    void charge(std::int64_t size) {
        FIGURES& entry = figures[open.back()];
        entry.current += size;
        entry.max = std::max(entry.max, entry.current);
        entry.cumulative += size;
    }
    std::string rendered() {
        std::string text;
        for (const std::string& name : names)
            if (const FIGURES& entry = figures[name]; entry.cumulative != 0)
                text += name + " cur " + std::to_string(entry.current) + " max " + std::to_string(entry.max) +
                        " cum " + std::to_string(entry.cumulative) + "\n";
        return text;
    }
    std::int64_t current() const {
        std::int64_t sum = 0;
        for (const auto& [name, entry] : figures)
            sum += entry.current;
        return sum;
    }
};

struct MODEL_HOST {
    struct BLOCK {
        std::int64_t size;
        std::string bin, tag;
    };
    MODEL_TABLE bins, tags;
    std::vector<std::string> tags_of_opens;
    std::map<std::uint64_t, BLOCK> live;

    void open(const std::string& name, const std::string& tag) {
        mem_open_profile_bin(name, tag);
        tags_of_opens.push_back(tag);
        if (!tag.empty())
            tags.push(tag);
        bins.push(tags.open.back() + "::" + name);
    }
    void close_newest() {
        close_bin(tags_of_opens.back());
        if (!tags_of_opens.back().empty())
            tags.open.pop_back();
        bins.open.pop_back();
        tags_of_opens.pop_back();
    }
    void allocate(std::uint64_t block, std::int64_t size) {
        ::allocate(block, static_cast<std::uint64_t>(size), {PARSE});
        bins.charge(size);
        tags.charge(size);
        live[block] = {size, bins.open.back(), tags.open.back()};
    }
    void release_first_behind(std::uint64_t block) {
        const auto chosen = live.lower_bound(block);
        if (chosen == live.end())
            return;
        ::release(chosen->first, static_cast<std::uint64_t>(chosen->second.size));
        bins.figures[chosen->second.bin].current -= chosen->second.size;
        tags.figures[chosen->second.tag].current -= chosen->second.size;
        live.erase(chosen);
    }
};

} // namespace

TEST_F(PROFILE_BINS_TEST, ARandomHostAgreesWithTheModel) {
    const std::uint64_t seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    start(MEM_GRANULARITY_ALL);
    MODEL_HOST host;
    std::uint64_t next_block = 0x100000;
    for (int step = 0; step < 20000; ++step) {
        const std::uint64_t choice = random() % 10;
        if (choice == 0 && host.tags_of_opens.size() < 12)
            host.open(std::string(1, "abcdef"[random() % 6]), std::string(random() % 2, "xyz"[random() % 3]));
        else if (choice == 1 && !host.tags_of_opens.empty())
            host.close_newest();
        else if (choice < 6)
            host.allocate(next_block += 16, static_cast<std::int64_t>(8 + random() % 5000));
        else
            host.release_first_behind(0x100000 + random() % (next_block - 0x100000 + 1));
    }
    EXPECT_EQ(rendered(*pbin_stats, bins()), host.bins.rendered());
    EXPECT_EQ(rendered(*ptag_stats, tags()), host.tags.rendered());
    EXPECT_EQ(host.bins.current(), mem_get_global_current().bytes.load());
    EXPECT_EQ(host.tags.current(), mem_get_global_current().bytes.load());
}
