// Thousands of random events, with features switched, bins opened and closed and tables reset in between,
// against a model that is as simple as can be.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/events/event_totals.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker/records/site_table.h"
#include "vbx/mem/mem_tbb_tracker_profile_bins/profile_bins.h"

#include <algorithm>
#include <map>
#include <mutex>
#include <random>

namespace {

constexpr std::uint64_t SITES[] = {PARSE, EXPAND, QUERY, FILTERED};

const char* module_of(std::uint64_t site) {
    return site == QUERY ? "engine" : site == FILTERED ? "OTHER" : "parser";
}
std::uint64_t key_of(std::uint64_t site) {
    return site == FILTERED ? 0 : site;
}

struct FIGURES {
    std::int64_t current = 0, max = 0, cumulative = 0, blocks = 0, max_blocks = 0, mismatched = 0;
    bool operator==(const FIGURES&) const = default;

    void charge(std::int64_t size) {
        max = std::max(max, current += size);
        max_blocks = std::max(max_blocks, ++blocks);
        cumulative += size;
    }
    void credit(std::int64_t size) {
        current -= size;
        --blocks;
    }
};

void PrintTo(const FIGURES& figures, std::ostream* stream) {
    *stream << figures.current << "/" << figures.blocks << " max " << figures.max << "/" << figures.max_blocks
            << " cum " << figures.cumulative << " mis " << figures.mismatched;
}

FIGURES figures_of(const MEMORY_TRACKER_BASE& record) {
    return {record.current_bytes,  record.max_bytes,  record.cumulative_bytes,
            record.current_blocks, record.max_blocks, record.cumulative_mismatched_bytes};
}

// Bins or tags: an entry for each up to the newest that was charged since the table was last empty.
struct TABLE {
    std::vector<std::string> open{"Root"}, names{"Root"};
    std::vector<FIGURES> entries;

    void push(const std::string& name) {
        open.push_back(name);
        if (id_of(name) == names.size())
            names.push_back(name);
    }
    std::size_t id_of(const std::string& name) const {
        return static_cast<std::size_t>(std::ranges::find(names, name) - names.begin());
    }
    std::size_t current() const { return id_of(open.back()); }
    void charge(std::size_t id, std::int64_t size) {
        entries.resize(std::max(entries.size(), id + 1));
        entries[id].charge(size);
    }
    void credit(std::size_t id, std::int64_t size) {
        if (id < entries.size())
            entries[id].credit(size);
    }
};

struct BLOCK {
    std::int64_t size;
    std::uint64_t site;  // 0: the live-block map doesn't know it
    std::int64_t thread; // -1: allocated while no thread was kept
    std::size_t bin, tag;
};

// Guarded by its own lock.
struct MODEL {
    std::mutex lock;
    std::uint32_t mask = 0;
    std::map<std::uint64_t, FIGURES> sites;
    std::map<std::string, FIGURES> modules;
    TABLE bins, tags;
    std::vector<std::string> tags_of_opens;
    FIGURES global, total;
    std::map<std::uint64_t, BLOCK> live;

    bool has(std::uint32_t bits) const { return (mask & bits) != 0; }

    // Makes a change to every record that the event moves but bin and tag.
    template <class CHANGE>
    void move(std::uint64_t site, CHANGE change) {
        if (has(8 | 16))
            change(sites[key_of(site)]);
        if (has(4))
            change(modules[module_of(site)]);
        if (has(1 | 32))
            change(global);
        if (has(2 | 4 | 8))
            change(total);
    }
    void allocate(std::int64_t thread, std::uint64_t address, std::int64_t size, std::uint64_t site) {
        const BLOCK block{size, has(4 | 8 | 16) ? site : 0, has(8) ? thread : -1, has(2) ? bins.current() : 0,
                          has(2) ? tags.current() : 0};
        live[address] = block;
        move(site, [size](FIGURES& figures) { figures.charge(size); });
        if (has(2)) {
            bins.charge(block.bin, size);
            tags.charge(block.tag, size);
        }
    }
    void release(std::int64_t thread, const BLOCK& block) {
        const std::uint64_t site = block.site != 0 ? block.site : FILTERED;
        move(site, [&block](FIGURES& figures) { figures.credit(block.size); });
        if (has(8) && block.site != 0 && block.size <= 8128 && block.thread != thread)
            sites[key_of(site)].mismatched += block.size;
        if (has(2)) {
            bins.credit(block.bin, block.size);
            tags.credit(block.tag, block.size);
        }
    }
    void change_bins(std::mt19937_64& random) {
        if (tags_of_opens.empty() || random() % 2 == 0) {
            const std::string name(1, "abcdef"[random() % 6]), tag(random() % 2, "xyz"[random() % 3]);
            mem_open_profile_bin(name, tag);
            tags_of_opens.push_back(tag);
            if (!tag.empty())
                tags.push(tag);
            bins.push(tags.open.back() + "::" + name);
            return;
        }
        close_bin(tags_of_opens.back());
        if (!tags_of_opens.back().empty())
            tags.open.pop_back();
        tags_of_opens.pop_back();
        bins.open.pop_back();
    }
    void reset() {
        mem_reset_tracking_entries();
        sites.clear();
        modules.clear();
        tags.entries.clear();
        total = {};
        for (auto& [address, block] : live)
            block.site = 0;
    }
};

} // namespace

// Maxima depend on the order of events, so they are compared with one thread only.
class RANDOM_RUN_TEST : public TRACKER_TEST, public testing::WithParamInterface<int> {
  protected:
    MODEL model;

    void change_features(std::uint32_t mask) {
        mem_disable_tracking(static_cast<MEM_TRACKING_GRANULARITY>(~mask & 127));
        mem_enable_tracking(static_cast<MEM_TRACKING_GRANULARITY>(mask));
        model.mask = mask;
        // Who keeps no record of blocks has none fetched.
        EXPECT_EQ(fake_free_notice_is_installed(), model.has(2 | 4 | 8 | 16)) << mask;
    }
    // The event runs outside the model's lock, so that events of several threads really overlap; a block is
    // taken out of the model before its free and put in behind its allocation.
    void one_event(std::int64_t thread, std::mt19937_64& random, std::uint64_t& next_block) {
        if (random() % 5 < 3) {
            const std::uint64_t size = random() % 4 == 0 ? 8120 + random() % 20 : 8 + random() % 500;
            const std::uint64_t site = SITES[random() % 4], block = next_block += 16;
            allocate(block, size, {FILTERED + 1, site});
            const std::lock_guard guard(model.lock);
            model.allocate(thread, block, static_cast<std::int64_t>(size), site);
            return;
        }
        std::unique_lock guard(model.lock);
        const auto chosen = model.live.lower_bound(random() % (next_block + 16));
        if (chosen == model.live.end())
            return;
        const auto [address, block] = *chosen;
        model.live.erase(chosen);
        model.release(thread, block);
        guard.unlock();
        release(address, static_cast<std::uint64_t>(block.size));
    }

    void expect_same(FIGURES found, FIGURES expected, const std::string& of) {
        if (GetParam() > 1)
            found.max = found.max_blocks = expected.max = expected.max_blocks = 0;
        EXPECT_EQ(found, expected) << of;
    }
    void expect_agreement(MEM_PB_STATS_TABLE& table, const MEM_PB_TABLE& names, const TABLE& expected) {
        ASSERT_EQ(names.size(), expected.names.size());
        ASSERT_EQ(table.size(), expected.entries.size());
        for (std::uint32_t id = 0; id < table.size(); ++id) {
            const MEM_PB_FIGURES found = table.figures(id);
            const FIGURES& wanted = expected.entries[id]; // its blocks are not counted in the table
            expect_same({found.current_bytes, found.max_bytes, found.cumulative_bytes, wanted.blocks,
                         wanted.max_blocks},
                        wanted, names.name_of(id));
        }
    }
    void expect_agreement() {
        for (const auto& [address, expected] : model.sites) {
            const MEM_STILL_SITES still;
            const MEM_ADDRESS_TRACKER* const site = mem_tbb_site_table->find(address);
            ASSERT_NE(site, nullptr);
            expect_same(figures_of(*site), expected, site->function_name);
        }
        for (const auto& [name, expected] : model.modules)
            expect_same(figures_of(module_record(name)), expected, name);
        expect_agreement(*pbin_stats, MEM_PROFILE_BINS::get_instance().m_bins(), model.bins);
        expect_agreement(*ptag_stats, MEM_PROFILE_BINS::get_instance().m_tags(), model.tags);
        const MEM_STATS stats = mem_get_stats();
        expect_same({stats.current.bytes.load(), stats.peak.bytes.load(), model.global.cumulative,
                     stats.current.blocks.load(), stats.peak.blocks.load()},
                    model.global, "globally");
        EXPECT_EQ(mem_event_totals.total(), model.total.current);
        for (const auto& [address, block] : model.live) {
            MEM_ADDRESS_TRACKER site;
            ASSERT_EQ(mem_get_address_tracker(reinterpret_cast<void*>(address), site), block.site != 0);
            EXPECT_EQ(site.address, key_of(block.site));
        }
    }
};

TEST_P(RANDOM_RUN_TEST, AgreesWithTheModel) {
    const std::uint64_t seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    start(MEM_GRANULARITY_PER_BIN_DETAILED, "1000000000"); // bins are opened whatever the mask becomes
    // What a free finds missing it leaves alone; with several threads that must not depend on their order.
    model.mask = MEM_GRANULARITY_PER_BIN_DETAILED;
    allocate(0x10, 16, {});
    model.allocate(0, 0x10, 16, 0);
    for (std::uint64_t round = 0; round < 60 && !HasFailure(); ++round) {
        change_features(static_cast<std::uint32_t>(random() % 128));
        for (std::uint64_t change = random() % 4; change > 0; --change)
            model.change_bins(random);
        if (round % 16 == 15 && GetParam() == 1)
            model.reset();
        run_on_threads(GetParam(), [this, round, seed](std::uint64_t thread) {
            // Threads are new each round, so a thread of an earlier round is another one to the tracker.
            const std::uint64_t number = 100 * round + thread;
            std::mt19937_64 own_random(seed + number);
            std::uint64_t next_block = (number + 1) << 20;
            for (int event = 0; event < 300; ++event)
                one_event(static_cast<std::int64_t>(number), own_random, next_block);
        });
        expect_agreement();
    }
}

INSTANTIATE_TEST_SUITE_P(Threads, RANDOM_RUN_TEST, testing::Values(1, 3));
