// A long run's module timeline: what its samples take, and what the report over them takes.
//
//     bench_timelines [MODULES [SAMPLES]]      200 modules, 100000 samples
//
// Every tenth module moves from one sample to the next, as most modules of a process stand still most of the
// time. The report goes to files that are unlinked at once. Memory is the process's high-water mark, so the
// growth during the report is what the report needs beside the samples.

#include "vbx/mem/mem_tbb_tracker/timelines/module_timeline.h"

#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

namespace {

using CLOCK = std::chrono::steady_clock;

double seconds_since(CLOCK::time_point start) {
    return std::chrono::duration<double>(CLOCK::now() - start).count();
}

long high_water_kib() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

void move_some_modules(MEM_MODULE_MAP& modules, unsigned count, std::mt19937& random) {
    const MEM_SPIN_GUARD guard(mem_module_lock);
    for (unsigned change = 0; change < count / 10 + 1; ++change) {
        MEMORY_TRACKER_BASE& record = modules.find_or_create("module" + std::to_string(random() % count));
        record.current_bytes += static_cast<std::int64_t>(random() % 8192) - 4096;
        record.cumulative_blocks += 1;
    }
}

std::ofstream unlinked_file(const std::string& name) {
    std::ofstream stream(name);
    std::filesystem::remove(name);
    return stream;
}

bool report(MEM_MODULE_TIMELINE& timeline, const MEM_LABEL_TIMELINE& labels) {
    std::ofstream plain = unlinked_file("bench_timelines_plain.log");
    std::ofstream detailed = unlinked_file("bench_timelines_detailed.log");
    const MEM_TIMELINE_GUARD section(timeline.section);
    const MEM_SPIN_GUARD label_lock(labels.lock);
    return timeline.dump(timeline.bytes_series, labels, plain, detailed) && plain.good() && detailed.good();
}

} // namespace

int main(int argc, char** argv) {
    const unsigned num_modules = argc > 1 ? static_cast<unsigned>(std::atoi(argv[1])) : 200;
    const unsigned num_samples = argc > 2 ? static_cast<unsigned>(std::atoi(argv[2])) : 100000;
    std::mt19937 random(1);
    MEM_MODULE_MAP modules;
    MEM_MODULE_TIMELINE timeline(modules);
    const MEM_LABEL_TIMELINE labels;

    const auto sampling_start = CLOCK::now();
    for (unsigned sample = 0; sample < num_samples; ++sample) {
        move_some_modules(modules, num_modules, random);
        timeline.take_sample();
    }
    const double sampling = seconds_since(sampling_start);
    const long after_sampling = high_water_kib();

    const auto report_start = CLOCK::now();
    const bool is_written = report(timeline, labels);
    std::printf("%u modules, %u samples: sampled in %.2f s, high water %ld KiB; reported in %.2f s, "
                "%ld KiB more\n",
                num_modules, num_samples, sampling, after_sampling, seconds_since(report_start),
                high_water_kib() - after_sampling);
    return is_written ? 0 : 1;
}
