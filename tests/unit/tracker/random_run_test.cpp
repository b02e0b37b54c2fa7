// Thousands of random events on several threads, with features switched on and off in between, against a
// model that is as simple as can be.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker/state/counters.h"

#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

namespace {

constexpr int THREADS = 3;
constexpr int ROUNDS = 12;
constexpr int EVENTS_A_ROUND = 1500;
constexpr std::uint64_t SITES[] = {PARSE, EXPAND, QUERY, FILTERED};

const char* module_of(std::uint64_t site) {
    return site == QUERY ? "engine" : site == FILTERED ? "OTHER" : "parser";
}
std::uint64_t key_of(std::uint64_t site) {
    return site == FILTERED ? 0 : site;
}

struct FIGURES {
    std::int64_t current_bytes = 0, current_blocks = 0, cumulative_bytes = 0, cumulative_blocks = 0,
                 mismatched = 0;
    bool operator==(const FIGURES&) const = default;
    void charge(std::int64_t size) {
        current_bytes += size;
        ++current_blocks;
        cumulative_bytes += size;
        ++cumulative_blocks;
    }
    void credit(std::int64_t size) {
        current_bytes -= size;
        --current_blocks;
    }
};

std::ostream& operator<<(std::ostream& stream, const FIGURES& figures) {
    return stream << figures.current_bytes << "/" << figures.current_blocks << " cum "
                  << figures.cumulative_bytes << "/" << figures.cumulative_blocks << " mis "
                  << figures.mismatched;
}

struct MODEL_BLOCK {
    std::uint64_t size;
    std::uint64_t site; // 0: not known to the live-block map
    int thread;         // -1: allocated while no thread was kept
};

// Guarded by its own lock; an event and its mirror here are one step, so the order of both is the same.
struct MODEL {
    std::mutex lock;
    std::uint32_t mask = 0;
    std::map<std::uint64_t, FIGURES> sites;
    std::map<std::string, FIGURES> modules;
    FIGURES global;
    std::int64_t total = 0, bin_bytes = 0;
    std::map<std::uint64_t, MODEL_BLOCK> live;

    bool has(std::uint32_t bits) const { return (mask & bits) != 0; }

    void allocate(int thread, std::uint64_t block, std::uint64_t size, std::uint64_t site) {
        const auto bytes = static_cast<std::int64_t>(size);
        const bool attributed = has(4 | 8 | 16);
        live[block] = {size, attributed ? site : 0, has(8) ? thread : -1};
        if (has(8 | 16))
            sites[key_of(site)].charge(bytes);
        if (has(4))
            modules[module_of(site)].charge(bytes);
        if (has(1 | 32))
            global.charge(bytes);
        if (has(2))
            bin_bytes += bytes;
        if (has(2 | 4 | 8))
            total += bytes;
    }

    void release(int thread, std::uint64_t block) {
        const MODEL_BLOCK known = live.at(block);
        live.erase(block);
        const auto bytes = static_cast<std::int64_t>(known.size);
        const std::uint64_t site = known.site != 0 ? known.site : FILTERED;
        if (has(8 | 16))
            sites[key_of(site)].credit(bytes);
        if (has(8) && known.site != 0 && known.size <= 8128 && known.thread != thread)
            sites[key_of(site)].mismatched += bytes;
        if (has(4))
            modules[module_of(site)].credit(bytes);
        if (has(1 | 32))
            global.credit(bytes);
        if (has(2))
            bin_bytes -= bytes;
        if (has(2 | 4 | 8))
            total -= bytes;
    }
};

FIGURES figures_of(const MEMORY_TRACKER_BASE& record) {
    return {record.current_bytes, record.current_blocks, record.cumulative_bytes, record.cumulative_blocks,
            record.cumulative_mismatched_bytes};
}

} // namespace

class RANDOM_RUN_TEST : public TRACKER_TEST {
  protected:
    MODEL model;

    void one_event(int thread, std::mt19937_64& random, std::uint64_t& next_block) {
        // The event runs outside the model's lock, so that events of several threads really overlap; a block
        // is taken out of the model before its free and put in behind its allocation.
        if (random() % 5 < 3) {
            const std::uint64_t size = 8 + random() % (random() % 4 == 0 ? 20000 : 500);
            const std::uint64_t site = SITES[random() % 4];
            const std::uint64_t block = next_block += 16;
            ::allocate(block, size, {FILTERED + 1, site});
            const std::lock_guard guard(model.lock);
            model.allocate(thread, block, size, site);
            return;
        }
        std::uint64_t block;
        std::uint64_t size;
        {
            const std::lock_guard guard(model.lock);
            if (model.live.empty())
                return;
            auto chosen = model.live.lower_bound(random() % (next_block + 16));
            if (chosen == model.live.end())
                chosen = model.live.begin();
            block = chosen->first;
            size = chosen->second.size;
            model.release(thread, block);
        }
        ::release(block, size);
    }

    void expect_agreement() {
        std::map<std::uint64_t, FIGURES> sites;
        for (const std::uint64_t address : {PARSE, EXPAND, QUERY})
            for (const auto& [block, known] : model.live)
                if (MEM_ADDRESS_TRACKER site; known.site == address && model.has(4 | 8 | 16))
                    if (mem_get_address_tracker(reinterpret_cast<void*>(block), site)) {
                        EXPECT_EQ(site.address, address);
                        EXPECT_EQ(figures_of(site), model.sites[address]) << site.function_name;
                        break;
                    }
        EXPECT_EQ(figures_of(catch_all()), model.sites[0]);
        for (const auto& [name, expected] : model.modules) {
            FIGURES found = figures_of(module_record(name));
            found.mismatched = 0;
            EXPECT_EQ(found, expected) << name;
        }
        const MEM_STATS stats = mem_get_stats();
        EXPECT_EQ(stats.current.bytes.load(), model.global.current_bytes);
        EXPECT_EQ(stats.current.blocks.load(), model.global.current_blocks);
        EXPECT_EQ(mem_tracked_total_bytes().load(), model.total);
        EXPECT_EQ(pbin_stats->entry(0).current_bytes.load(), model.bin_bytes);
        EXPECT_EQ(ptag_stats->entry(0).current_bytes.load(), model.bin_bytes);
    }
};

TEST_F(RANDOM_RUN_TEST, AgreesWithTheModel) {
    const std::uint64_t seed = std::random_device()();
    RecordProperty("seed", std::to_string(seed));
    SCOPED_TRACE("seed " + std::to_string(seed));
    set_variable("mem_profile_library_snapshot_period", "1000000000");
    std::mt19937_64 random(seed);
    // The tables hold Root from its first charge on; what is freed before is subtracted from nothing.
    start(MEM_GRANULARITY_PER_BIN_DETAILED);
    ::allocate(0x10, 8, {});
    ::release(0x10, 8);
    for (int round = 0; round < ROUNDS; ++round) {
        const auto next_mask = static_cast<std::uint32_t>(random() % 128);
        mem_disable_tracking(static_cast<MEM_TRACKING_GRANULARITY>(~next_mask & 127));
        mem_enable_tracking(static_cast<MEM_TRACKING_GRANULARITY>(next_mask));
        model.mask = next_mask;
        std::vector<std::thread> threads;
        for (int thread = 0; thread < THREADS; ++thread)
            threads.emplace_back([this, round, thread, seed] {
                // Threads are new each round, so a thread of an earlier round is another one to the tracker.
                std::mt19937_64 own_random(seed + static_cast<std::uint64_t>(100 * round + thread));
                std::uint64_t next_block = (static_cast<std::uint64_t>(100 * round + thread) + 1) << 20;
                for (int event = 0; event < EVENTS_A_ROUND; ++event)
                    one_event(100 * round + thread, own_random, next_block);
            });
        for (std::thread& thread : threads)
            thread.join();
        expect_agreement();
    }
}
