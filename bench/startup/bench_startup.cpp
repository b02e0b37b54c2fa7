// Start and end of an empty program: alone, with other allocators in front, with the library. One run is some
// milliseconds, so what a change costs every process shows here first; compare_startup.py gives the full
// table.
#include <benchmark/benchmark.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace {

constexpr const char* PROXY = "LD_PRELOAD=libtbbmalloc_proxy.so.2";
constexpr const char* SHIM = "LD_PRELOAD=" LIBRARY_FOLDER "/libtbbamalloc.so";
constexpr const char* LIBRARY =
    "LD_PRELOAD=" LIBRARY_FOLDER "/libtbbamalloc.so " LIBRARY_FOLDER "/libvbx_mem_preload.so";

void run_once(benchmark::State& state, const char* preload) {
    std::string program = EMPTY_PROGRAM;
    std::string variable = preload;
    char* arguments[] = {program.data(), nullptr};
    char* environment[] = {variable.data(), nullptr};
    pid_t child = 0;
    int status = 0;
    if (posix_spawn(&child, program.c_str(), nullptr, nullptr, arguments, environment) != 0 ||
        waitpid(child, &status, 0) != child || status != 0)
        state.SkipWithError("the program did not start and end as it should");
}

void start_and_end(benchmark::State& state, const char* preload) {
    for (auto _ : state)
        run_once(state, preload);
}

} // namespace

BENCHMARK_CAPTURE(start_and_end, plain, "LD_PRELOAD=")->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(start_and_end, tbbmalloc_proxy, PROXY)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(start_and_end, shim, SHIM)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(start_and_end, shim_and_library, LIBRARY)->UseRealTime()->Unit(benchmark::kMicrosecond);
