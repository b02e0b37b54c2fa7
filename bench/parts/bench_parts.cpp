// What one allocation and free cost with each feature on, through the shim and the whole event handler, and
// what the parts cost that every attributed event goes through: gate, site table, live-block map. Mask 0 is
// the bare shim. Samples of the timelines are left out; bench_timelines has those.
#include "vbx/mem/base/tracker_gate.h"
#include "vbx/mem/mem_tbb_tracker/records/address_map.h"
#include "vbx/mem/mem_tbb_tracker/records/site_table.h"
#include "vbx/mem/mem_tbb_tracker/state/settings.h"
#include "vbx/mem/tracker.h"

#include <benchmark/benchmark.h>

#include <array>
#include <cstdlib>
#include <vector>

namespace {

constexpr int DEPTH = 16;

using LOOP = void (*)(benchmark::State& state);

[[gnu::noinline]] void at_depth(int depth, LOOP loop, benchmark::State& state) {
    if (depth > 0)
        at_depth(depth - 1, loop, state);
    else
        loop(state);
    asm volatile("" ::: "memory"); // keeps the loop out that the recursion could become
}

// Sizes and places as a program's have them: slots of many sizes, freed in another order than obtained.
class LIVE_BLOCKS {
  public:
    explicit LIVE_BLOCKS(std::size_t count) : blocks(count) {
        for (void*& block : blocks)
            block = std::malloc(next_size());
    }
    ~LIVE_BLOCKS() {
        for (void* block : blocks)
            std::free(block);
    }
    LIVE_BLOCKS(const LIVE_BLOCKS&) = delete;
    LIVE_BLOCKS& operator=(const LIVE_BLOCKS&) = delete;

    void*& any() { return blocks[next() % blocks.size()]; }
    std::size_t next_size() { return (std::size_t{16} << next() % 7) + next() % 16; }
    auto begin() const { return blocks.begin(); }
    auto end() const { return blocks.end(); }

  private:
    std::uint32_t next() { return (random = random * 1664525U + 1013904223U) >> 8; }
    std::uint32_t random = 1;
    std::vector<void*> blocks;
};

void pairs(benchmark::State& state) {
    LIVE_BLOCKS blocks(4096);
    for (auto _ : state) {
        void*& block = blocks.any();
        std::free(block);
        block = std::malloc(blocks.next_size());
        benchmark::DoNotOptimize(block);
    }
}

MEM_TRACKING_GRANULARITY mask_of(const benchmark::State& state) {
    return static_cast<MEM_TRACKING_GRANULARITY>(state.range(0));
}

void turn_on(const benchmark::State& state) {
    mem_enable_tracking(mask_of(state));
}

void turn_off(const benchmark::State& state) {
    mem_disable_tracking(mask_of(state));
}

void event_pair(benchmark::State& state) {
    at_depth(DEPTH, pairs, state);
}

void gate_pass(benchmark::State& state) {
    static MEM_TRACKER_GATE gate;
    for (auto _ : state)
        const MEM_GATE_MOUSE mouse(gate);
}

void site_find(benchmark::State& state) {
    MEM_SITE_TABLE table;
    MEM_ADDRESS_TRACKER record;
    std::vector<std::uint64_t> addresses;
    for (std::uint64_t at = 0; at < static_cast<std::uint64_t>(state.range(0)); ++at)
        addresses.push_back(0x555555550000 + at * 23 % 65536 * 16);
    const MEM_SPIN_GUARD guard(mem_site_lock);
    for (const std::uint64_t address : addresses) {
        record.address = address;
        table.insert(record);
    }
    std::size_t at = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(table.find(addresses[at]));
        at = at + 1 < addresses.size() ? at + 1 : 0;
    }
}

// One block out and in again, among so many live ones.
void map_pair(benchmark::State& state) {
    static MEM_ADDRESS_MAP map;
    MEM_SITE site;
    LIVE_BLOCKS blocks(static_cast<std::size_t>(state.range(0)));
    for (const void* block : blocks)
        map.insert_or_assign(block, {&site, 1, 0});
    MEM_BLOCK_RECORD record;
    for (auto _ : state) {
        const void* const block = blocks.any();
        if (!map.take(block, record))
            state.SkipWithError("a live block is missing");
        map.insert_or_assign(block, record);
    }
    for (const void* block : blocks)
        map.take(block, record);
}

} // namespace

BENCHMARK(event_pair)
    ->ArgName("mask")
    ->ArgsProduct({{0, 1, 2, 4, 8, 16, 32, 64, 95}})
    ->Setup(turn_on)
    ->Teardown(turn_off)
    ->ThreadRange(1, 4)
    ->UseRealTime();
BENCHMARK(gate_pass)->ThreadRange(1, 4)->UseRealTime();
BENCHMARK(site_find)->Arg(500)->Arg(5000);
BENCHMARK(map_pair)->Arg(4096)->Arg(1000000)->UseRealTime();
BENCHMARK(map_pair)->Arg(4096)->ThreadRange(2, 4)->UseRealTime();

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    mem_tbb_tracker_start(MEM_GRANULARITY_NONE);
    mem_snapshot_period = ~std::uint64_t{0};
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
