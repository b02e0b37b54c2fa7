// What the shim costs over the bare allocator: one malloc and one free, and calloc at the size where zeroing
// changes its method.
#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <benchmark/benchmark.h>
#include <tbb/scalable_allocator.h>

#include <array>
#include <cstdlib>
#include <cstring>

extern "C" void* __libc_malloc(std::size_t size);
extern "C" void __libc_free(void* block);
extern "C" void* __libc_calloc(std::size_t count, std::size_t size);

namespace {

struct ALLOCATOR {
    void* (*obtain)(std::size_t);
    void (*give_back)(void*);
    tbbk_mem_tracker_callback hook;
};

struct SIZES {
    std::size_t smallest;
    std::size_t range;
};

std::uint64_t counted_bytes = 0;

void count_event(void*, std::uint64_t, std::uint64_t allocated, bool is_allocation) {
    counted_bytes += is_allocation ? allocated : 0;
}

const ALLOCATOR libc = {__libc_malloc, __libc_free, nullptr};
const ALLOCATOR bare = {scalable_malloc, scalable_free, nullptr};
const ALLOCATOR shim = {std::malloc, std::free, nullptr};
const ALLOCATOR hooked_shim = {std::malloc, std::free, count_event};

constexpr SIZES fixed_64 = {64, 1};
constexpr SIZES random_small = {16, 1025};
constexpr SIZES fixed_20000 = {20000, 1};

// Pairs over a ring of live blocks, so that a block is not the one freed last each time.
void pair_cost(benchmark::State& state, ALLOCATOR allocator, SIZES sizes) {
    tbbk_set_mem_tracker_callback(allocator.hook);
    std::array<void*, 64> ring = {};
    std::uint32_t random = 1;
    std::size_t at = 0;
    for (auto _ : state) {
        random = random * 1664525U + 1013904223U;
        void*& block = ring[at++ % ring.size()];
        allocator.give_back(block);
        block = allocator.obtain(sizes.smallest + (random >> 8) % sizes.range);
        benchmark::DoNotOptimize(block);
    }
    for (void* block : ring)
        allocator.give_back(block);
    tbbk_set_mem_tracker_callback(nullptr);
}

void zeroed_and_used(benchmark::State& state, void* (*obtain)(std::size_t, std::size_t),
                     void (*give_back)(void*)) {
    const std::size_t size = static_cast<std::size_t>(state.range(0)) * 1024;
    for (auto _ : state) {
        void* const block = obtain(1, size);
        std::memset(block, 1, size); // the dirty block goes back, to be handed out again
        give_back(block);
    }
}

void zeroed_only(benchmark::State& state, void* (*obtain)(std::size_t, std::size_t),
                 void (*give_back)(void*)) {
    const std::size_t size = static_cast<std::size_t>(state.range(0)) * 1024;
    for (auto _ : state) {
        void* const block = obtain(1, size);
        benchmark::DoNotOptimize(block);
        give_back(block);
    }
}

} // namespace

BENCHMARK_CAPTURE(pair_cost, libc_64, libc, fixed_64);
BENCHMARK_CAPTURE(pair_cost, bare_64, bare, fixed_64);
BENCHMARK_CAPTURE(pair_cost, shim_64, shim, fixed_64);
BENCHMARK_CAPTURE(pair_cost, hooked_64, hooked_shim, fixed_64);
BENCHMARK_CAPTURE(pair_cost, libc_random, libc, random_small);
BENCHMARK_CAPTURE(pair_cost, bare_random, bare, random_small);
BENCHMARK_CAPTURE(pair_cost, shim_random, shim, random_small);
BENCHMARK_CAPTURE(pair_cost, hooked_random, hooked_shim, random_small);
BENCHMARK_CAPTURE(pair_cost, libc_20000, libc, fixed_20000);
BENCHMARK_CAPTURE(pair_cost, bare_20000, bare, fixed_20000);
BENCHMARK_CAPTURE(pair_cost, shim_20000, shim, fixed_20000);
BENCHMARK_CAPTURE(pair_cost, hooked_20000, hooked_shim, fixed_20000);

BENCHMARK_CAPTURE(zeroed_and_used, libc, __libc_calloc, __libc_free)->RangeMultiplier(4)->Range(16, 65536);
BENCHMARK_CAPTURE(zeroed_and_used, bare, scalable_calloc, scalable_free)
    ->RangeMultiplier(4)
    ->Range(16, 65536);
BENCHMARK_CAPTURE(zeroed_and_used, shim, std::calloc, std::free)->RangeMultiplier(4)->Range(16, 65536);
BENCHMARK_CAPTURE(zeroed_only, libc, __libc_calloc, __libc_free)->RangeMultiplier(4)->Range(16, 65536);
BENCHMARK_CAPTURE(zeroed_only, bare, scalable_calloc, scalable_free)->RangeMultiplier(4)->Range(16, 65536);
BENCHMARK_CAPTURE(zeroed_only, shim, std::calloc, std::free)->RangeMultiplier(4)->Range(16, 65536);
