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

// Bytes from block to block: all that a heap does, and what only a callback's own events could bring.
TEST(BLOCK_MAP_TEST, HasARecordForEachBlock) {
    for (const std::uint64_t step : std::initializer_list<std::uint64_t>{
             1, 8, 16, 48, 1792, 16384, 16384 + 64, 1 << 25, std::uint64_t{1} << 34}) {
        SCOPED_TRACE(step);
        MAP map;
        churn(map, 0x3FF0, step, 1000, 1);
    }
}

TEST(BLOCK_MAP_TEST, RefusesWhatNoProcessHas) {
    MAP map;
    const std::uint64_t beyond = std::uint64_t{1} << 47;
    RECORD record;
    EXPECT_THROW(map.insert_or_assign(at(beyond + 0x5000), {1, 0}), std::bad_alloc);
    map.insert_or_assign(at(0x5000), {1, 0});
    EXPECT_FALSE(map.take(at(beyond + 0x5000), record));
}

// The blocks of all threads lie between each other, in slabs that become finer meanwhile. A fetch takes no
// lock, so nothing that it looks at may go away: neither then nor at a clear.
TEST(BLOCK_MAP_TEST, ThreadsShareSlabs) {
    constexpr std::uint64_t THREADS = 4;
    MAP map;
    std::atomic<bool> is_done{false};
    auto fetching = run_on_threads(1, [&](std::uint64_t) {
        for (std::uint64_t block = 0; !is_done; ++block)
            map.prefetch(at(0x10000 + block % 100'000 * 16));
    });
    for (std::uint32_t round = 0; round < 40; ++round) {
        run_on_threads(THREADS, [&map, round](std::uint64_t thread) {
            churn(map, 0x10000 + 16 * thread, 16 * THREADS, 300, round);
        });
        map.clear(); // the next round finds it empty
    }
    is_done = true;
}
