// What a capture costs by remembered rules and by libgcc: through frames of the program, which are permanent,
// and through frames of a library that could be closed. "anew" is what one frame costs the first time.
#include "vbx/platform/vbx_err/cfi_program.h"
#include "vbx/platform/vbx_err/unwinders.h"

#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include <array>
#include <stdexcept>

namespace {

using CALL = void (*)(void*);
using NESTED = void (*)(int depth, CALL call, void* argument);

[[gnu::noinline]] void call_permanent(int depth, CALL call, void* argument) {
    if (depth > 0)
        call_permanent(depth - 1, call, argument);
    else
        call(argument);
    asm volatile("" ::: "memory"); // keeps the loop out that the recursion could become
}

NESTED closable() {
    static void* const library = dlopen(CLOSABLE_CALLS, RTLD_NOW);
    void* const function = library != nullptr ? dlsym(library, "call_nested") : nullptr;
    if (function == nullptr)
        throw std::runtime_error("no " CLOSABLE_CALLS);
    return reinterpret_cast<NESTED>(function);
}

struct CAPTURES {
    benchmark::State& state;
    ERR_UNWINDER& unwinder;
    std::int32_t frames;
};

void capture_repeatedly(void* argument) {
    CAPTURES& captures = *static_cast<CAPTURES*>(argument);
    std::array<std::uint64_t, 61> frames;
    for (auto _ : captures.state) {
        if (captures.unwinder.capture_stack(frames.data(), captures.frames, 0, 0) != captures.frames)
            captures.state.SkipWithError("the stack isn't that deep");
        benchmark::DoNotOptimize(frames);
    }
}

void capture(benchmark::State& state, ERR_UNWINDER* (*unwinder)(), NESTED nested) {
    const auto frames = static_cast<std::int32_t>(state.range(0));
    CAPTURES captures{state, *unwinder(), frames};
    nested(frames, capture_repeatedly, &captures);
}

void find_anew(benchmark::State& state) {
    const auto address = reinterpret_cast<std::uintptr_t>(capture_repeatedly) + 1;
    for (auto _ : state) {
        dl_find_object object;
        std::uint32_t row = 0;
        ERR_DESCRIPTION_BYTES bytes;
        ERR_FRAME_DESCRIPTION description;
        if (_dl_find_object(reinterpret_cast<void*>(address), &object) != 0)
            state.SkipWithError("no object");
        const ERR_UNWIND_TABLES tables = {reinterpret_cast<std::uintptr_t>(object.dlfo_map_start),
                                          reinterpret_cast<std::uintptr_t>(object.dlfo_map_end),
                                          reinterpret_cast<std::uintptr_t>(object.dlfo_eh_frame)};
        if (err_find_row(tables, address, row) != ERR_LOOKUP::found ||
            !err_description_in_row(tables, row, address, bytes) || !err_read_description(bytes, description))
            state.SkipWithError("no description");
        benchmark::DoNotOptimize(err_run_call_frame_program(description, address));
    }
}

void depths(benchmark::internal::Benchmark* bench) {
    bench->Arg(11)->Arg(14)->Arg(61)->ThreadRange(1, 2);
}

} // namespace

BENCHMARK_CAPTURE(capture, libgcc, err_libgcc_unwinder, call_permanent)->Apply(depths);
BENCHMARK_CAPTURE(capture, rules, ERR_UNWINDER::get_default_unwinder, call_permanent)->Apply(depths);
BENCHMARK_CAPTURE(capture, libgcc_closable, err_libgcc_unwinder, closable())->Apply(depths);
BENCHMARK_CAPTURE(capture, rules_closable, ERR_UNWINDER::get_default_unwinder, closable())->Apply(depths);
BENCHMARK(find_anew);
