// Samplers on several threads against charges, tables that grow, labels, bins, reports and resets: what is
// written adds up, row by row.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/tracker.h"

#include <atomic>
#include <map>
#include <numeric>
#include <random>
#include <sstream>
#include <thread>

namespace {

constexpr int THREADS = 3;
constexpr std::uint64_t MODULES = 30; // so that the plain output has a "Misc" with something in it
constexpr std::uint64_t FIRST_SITE = 0x4000;

// The figures of a report: a line a row, without the label.
struct FIGURES {
    std::vector<std::string> names;
    std::vector<std::vector<std::int64_t>> rows;
};

FIGURES figures_of(const std::string& report) {
    FIGURES figures;
    std::istringstream lines(report);
    std::string line, cell;
    for (int head = 0; head < 3; ++head)
        std::getline(lines, line);
    std::istringstream names(line.empty() ? line : line.substr(1));
    while (std::getline(names, cell, '\t'))
        figures.names.push_back(cell);
    while (std::getline(lines, line) && !line.starts_with("Time spent")) {
        std::istringstream cells(line);
        std::getline(cells, cell, '\t');
        auto& row = figures.rows.emplace_back();
        while (std::getline(cells, cell, '\t'))
            row.push_back(std::stoll(cell));
    }
    return figures;
}

std::int64_t sum(const std::vector<std::int64_t>& row) {
    return std::accumulate(row.begin(), row.end(), std::int64_t{0});
}

using REPORT = bool (*)(std::ostream&, std::ostream&);

// Both outputs of one report have the same rows, and each row the same sum. Gives the detailed one.
FIGURES checked_report(REPORT report) {
    std::ostringstream plain_text, detailed_text;
    EXPECT_TRUE(report(plain_text, detailed_text));
    const FIGURES plain = figures_of(plain_text.str());
    FIGURES detailed = figures_of(detailed_text.str());
    EXPECT_EQ(plain.rows.size(), detailed.rows.size());
    for (std::size_t row = 0; row < plain.rows.size(); ++row) {
        EXPECT_EQ(plain.rows[row].size(), plain.names.size());
        EXPECT_EQ(detailed.rows[row].size(), detailed.names.size());
        EXPECT_EQ(sum(plain.rows[row]), sum(detailed.rows[row])) << "row " << row;
    }
    return detailed;
}

} // namespace

class TIMELINE_THREADS_TEST : public TRACKER_TEST {
  protected:
    TIMELINE_THREADS_TEST() {
        for (std::uint64_t module = 0; module < MODULES; ++module)
            fake_define_symbol(FIRST_SITE + module,
                               {"f", "/src/f.cpp", 1, "module" + std::to_string(module)});
        set_variable("mem_profile_library_snapshot_period", "7");
    }

    // Runs `others` once a round while events run on threads of their own.
    template <class OTHERS>
    void run(OTHERS others) {
        // The line of every eighth sample is of no interest here.
        testing::internal::CaptureStdout();
        std::atomic<int> running{THREADS};
        std::vector<std::thread> threads;
        for (int thread = 0; thread < THREADS; ++thread)
            threads.emplace_back([thread, &running] {
                std::mt19937_64 random(static_cast<std::uint64_t>(thread));
                const std::uint64_t base = (static_cast<std::uint64_t>(thread) + 1) << 24;
                std::map<std::uint64_t, std::uint64_t> live;
                for (std::uint64_t event = 0; event < 3000; ++event) {
                    if (live.size() > 50 || (!live.empty() && random() % 3 == 0)) {
                        release(live.begin()->first, live.begin()->second);
                        live.erase(live.begin());
                        continue;
                    }
                    const std::uint64_t size = random() % 1000;
                    // Modules turn up one by one over the run.
                    const std::uint64_t site = FIRST_SITE + random() % (1 + event * MODULES / 3000);
                    live[base + 16 * event] = size;
                    allocate(base + 16 * event, size, {site});
                }
                --running;
            });
        for (int round = 0; running != 0; ++round)
            others(round);
        for (std::thread& thread : threads)
            thread.join();
        testing::internal::GetCapturedStdout();
    }
};

TEST_F(TIMELINE_THREADS_TEST, EveryRowAddsUp) {
    start(MEM_GRANULARITY_ALL);
    run([](int round) {
        mem_set_timeline_label("label " + std::to_string(round));
        mem_open_profile_bin("bin" + std::to_string(round % 40), "tag" + std::to_string(round % 300));
        mem_user_snapshot_tracking_data();
        std::uint64_t ignored;
        mem_close_profile_bin("tag" + std::to_string(round % 300), &ignored, &ignored, &ignored);
        if (round % 20 == 0) {
            checked_report(mem_dump_tbb_module_tracking);
            checked_report(mem_dump_tbb_profile_bin_tag_timeline_tracking);
        }
    });
    // Nothing moves any more: the last row is what the records say, module by module and tag by tag.
    mem_user_snapshot_tracking_data();
    const FIGURES modules = checked_report(mem_dump_tbb_module_tracking);
    ASSERT_EQ(modules.names.size(), MODULES + 1);
    for (std::size_t column = 0; column < modules.names.size(); ++column)
        EXPECT_EQ(modules.rows.back()[column], module_record(modules.names[column]).current_bytes);
    const FIGURES tags = checked_report(mem_dump_tbb_profile_bin_tag_timeline_tracking);
    ASSERT_EQ(tags.names.size(), ptag_stats->size());
    for (std::size_t column = 0; column < tags.names.size(); ++column)
        EXPECT_EQ(tags.rows.back()[column],
                  ptag_stats->figures(static_cast<std::uint32_t>(column)).current_bytes);
    EXPECT_EQ(sum(modules.rows.back()), sum(tags.rows.back()));
}

TEST_F(TIMELINE_THREADS_TEST, AResetComesBetweenTwoSamples) {
    start(MEM_GRANULARITY_ALL);
    run([](int round) {
        mem_reset_tracking_entries();
        if (round % 8 == 0)
            checked_report(mem_dump_tbb_profile_bin_tag_timeline_tracking);
    });
    mem_reset_tracking_entries();
    mem_user_snapshot_tracking_data();
    EXPECT_EQ(checked_report(mem_dump_tbb_profile_bin_tag_timeline_tracking).rows.size(), 1U);
}

// A host's threads that go on while the process ends find the tracker or nothing.
TEST_F(TIMELINE_THREADS_TEST, TheTeardownWaitsForHosts) {
    start(MEM_GRANULARITY_ALL);
    std::atomic<bool> stop{false};
    std::atomic<int> rounds{0};
    std::vector<std::thread> hosts;
    for (int thread = 0; thread < THREADS; ++thread)
        hosts.emplace_back([&stop, &rounds] {
            for (; !stop; ++rounds) {
                std::ostringstream plain, detailed;
                MEMORY_TRACKER_BASE record;
                mem_set_timeline_label("label");
                mem_user_snapshot_tracking_data();
                mem_dump_tbb_module_tracking(plain, detailed);
                mem_get_module_tracker("OTHER", record);
            }
        });
    while (rounds < 20)
        std::this_thread::yield();
    const EMPTY_FOLDER folder;
    mem_tbb_tracker_teardown();
    for (const int then = rounds; rounds < then + 20;)
        std::this_thread::yield();
    stop = true;
    for (std::thread& host : hosts)
        host.join();
}
