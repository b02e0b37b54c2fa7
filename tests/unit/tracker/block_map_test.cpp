// The map of live blocks: whatever lies where, each block keeps its own record.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/records/block_map.h"

#include <atomic>
#include <map>
#include <new>
#include <random>

namespace {

struct alignas(16) RECORD {
    std::uint64_t value = 0;
    std::uint32_t mark = 0;
};
using MAP = MEM_BLOCK_MAP<RECORD>;

const void* at(std::uint64_t address) {
    return reinterpret_cast<const void*>(address);
}

// Of no block: 0.
std::uint64_t value_of(MAP& map, std::uint64_t address) {
    std::uint64_t value = 0;
    map.visit(at(address), [&value](const RECORD& record) { value = record.value; });
    return value;
}

// Enters and takes the blocks first, first + step, ... in any order, and compares all of them with a plain
// map.
void churn(MAP& map, std::uint64_t first, std::uint64_t step, std::uint64_t blocks, std::uint32_t seed) {
    std::mt19937_64 random(seed);
    std::map<std::uint64_t, std::uint64_t> expected;
    for (std::uint64_t change = 1; change < 4 * blocks; ++change) {
        const std::uint64_t address = first + random() % blocks * step;
        RECORD record;
        switch (random() % 4) {
        case 0:
            EXPECT_EQ(map.take(at(address), record), expected.contains(address));
            EXPECT_EQ(record.value, expected[address]);
            expected.erase(address);
            break;
        case 1:
            map.insert(at(address), {change, 0});
            expected.try_emplace(address, change);
            break;
        default:
            map.insert_or_assign(at(address), {change, 0});
            expected[address] = change;
        }
    }
    for (std::uint64_t block = 0; block < blocks; ++block) {
        const auto found = expected.find(first + block * step);
        EXPECT_EQ(value_of(map, first + block * step), found != expected.end() ? found->second : 0);
    }
}

} // namespace

class BLOCK_STEPS_TEST : public testing::TestWithParam<std::uint64_t> {};

TEST_P(BLOCK_STEPS_TEST, HasARecordForEachBlock) {
    MAP map;
    churn(map, 0x3FF0, GetParam(), 1000, 1);
    map.clear();
    EXPECT_EQ(value_of(map, 0x3FF0), 0U);
    churn(map, 0x3FF0, GetParam(), 100, 2);
}
// Bytes from block to block: all that a heap does, and what only a callback's own events could bring.
INSTANTIATE_TEST_SUITE_P(Steps, BLOCK_STEPS_TEST,
                         testing::Values(1, 8, 16, 48, 1792, 16384, 16384 + 64, 1 << 25,
                                         std::uint64_t{1} << 34));

TEST(BLOCK_MAP_TEST, TellsNeighboursApart) {
    MAP map;
    map.insert_or_assign(at(0x5000), {1, 0});
    for (const std::uint64_t other : {0x4FF8, 0x5001, 0x5008, 0x5400, 0x1000, 0x9000})
        EXPECT_EQ(value_of(map, other), 0U) << other;
}

TEST(BLOCK_MAP_TEST, RefusesWhatNoProcessHas) {
    MAP map;
    const std::uint64_t beyond = std::uint64_t{1} << 47;
    RECORD record;
    EXPECT_THROW(map.insert_or_assign(at(beyond + 0x5000), {1, 0}), std::bad_alloc);
    map.insert_or_assign(at(0x5000), {1, 0});
    EXPECT_FALSE(map.take(at(beyond + 0x5000), record));
}

// The blocks of all threads lie between each other, in slabs that become finer meanwhile.
TEST(BLOCK_MAP_TEST, ThreadsShareSlabs) {
    constexpr std::uint64_t THREADS = 4;
    MAP map;
    run_on_threads(THREADS, [&map](std::uint64_t thread) {
        for (std::uint32_t round = 0; round < 20; ++round)
            churn(map, 0x10000 + (round << 20) + 16 * thread, 16 * THREADS, 300, round);
    });
}

// It takes no lock, so nothing that it looks at may go away: neither in a slab that becomes finer, nor at a
// clear.
TEST(BLOCK_MAP_TEST, FetchesRecordsAtAnyTime) {
    MAP map;
    std::atomic<bool> is_done{false};
    run_on_threads(2, [&map, &is_done](std::uint64_t thread) {
        for (std::uint64_t block = 0; thread == 0 && !is_done; ++block)
            map.prefetch(at(0x10000 + block % 100'000 * 16));
        for (std::uint32_t round = 0; thread == 1 && round < 20; ++round) {
            churn(map, 0x10000, 16, 1000, round);
            map.clear();
        }
        is_done = is_done || thread == 1;
    });
    EXPECT_EQ(value_of(map, 0x10000), 0U);
}
