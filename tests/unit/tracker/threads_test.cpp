// Events on many threads while the host opens and closes bins, sets labels, takes samples and writes reports
// at full speed, and while resets empty the tables or the tracker goes.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/tracker.h"

#include <atomic>
#include <map>
#include <numeric>
#include <random>
#include <sstream>

namespace {

constexpr std::uint64_t MODULES = 30; // so that the plain output has a "Misc" with something in it
constexpr std::uint64_t FIRST_SITE = 0x4000;
constexpr std::uint64_t EVENTS = 20000;

// Allocates and frees in a stretch of addresses of its own, a few dozen blocks live at a time.
struct EVENT_THREAD {
    std::map<std::uint64_t, std::uint64_t> live;

    void run(std::uint64_t number) {
        std::mt19937_64 random(number);
        for (std::uint64_t event = 0; event < EVENTS; ++event) {
            if (live.size() > 50 || (!live.empty() && random() % 3 == 0)) {
                release_first();
                continue;
            }
            const std::uint64_t block = ((number + 1) << 24) + 16 * event;
            // Modules turn up one by one over the run.
            const std::uint64_t site = FIRST_SITE + random() % (1 + event * MODULES / EVENTS);
            live[block] = random() % 1000;
            allocate(block, live[block], {site});
        }
    }
    void release_first() {
        release(live.begin()->first, live.begin()->second);
        live.erase(live.begin());
    }
};

// The last row of a report whose rows add up to the same in both outputs, and which has a name for all.
std::vector<std::int64_t> checked_last_row(bool (*report)(std::ostream&, std::ostream&)) {
    std::ostringstream plain, detailed;
    EXPECT_TRUE(report(plain, detailed));
    std::istringstream plain_lines(plain.str()), detailed_lines(detailed.str());
    std::vector<std::int64_t> figures;
    const auto sum_of_next_row = [&figures](std::istringstream& lines) {
        std::string line, label;
        if (!std::getline(lines, line) || line.find('\t') == std::string::npos || line.starts_with("Time"))
            return std::optional<std::int64_t>();
        EXPECT_FALSE(line.starts_with("BinIterError"));
        figures.clear();
        std::istringstream cells(line);
        std::getline(cells, label, '\t');
        for (std::int64_t figure; cells >> figure;)
            figures.push_back(figure);
        return std::optional(std::accumulate(figures.begin(), figures.end(), std::int64_t{0}));
    };
    for (std::istringstream* lines : {&plain_lines, &detailed_lines})
        lines->ignore(1000, '\n').ignore(1000, '\n').ignore(100'000, '\n');
    while (const auto sum = sum_of_next_row(plain_lines)) {
        const auto detailed_sum = sum_of_next_row(detailed_lines);
        EXPECT_EQ(sum, detailed_sum);
    }
    EXPECT_FALSE(sum_of_next_row(detailed_lines).has_value());
    return figures;
}

std::int64_t current_bytes(const MEM_PB_STATS_TABLE& table) {
    std::int64_t sum = 0;
    for (std::uint32_t id = 0; id < table.size(); ++id)
        sum += table.figures(id).current_bytes;
    return sum;
}

void open_and_close(std::uint64_t round) {
    const MEM_PROFILE_BIN_SCOPE outer("o" + std::to_string(round % 7), "t" + std::to_string(round % 300));
    const MEM_PROFILE_BIN_SCOPE inner("i" + std::to_string(round % 2000), round % 3 == 0 ? "inner" : "");
    mem_user_snapshot_tracking_data();
}

} // namespace

class THREADS_TEST : public TRACKER_TEST {
  protected:
    EVENT_THREAD event_threads[3];

    THREADS_TEST() {
        for (std::uint64_t module = 0; module < MODULES; ++module)
            fake_define_symbol(FIRST_SITE + module,
                               {"f", "/src/f.cpp", 1, "module" + std::to_string(module)});
        start(MEM_GRANULARITY_ALL, "70");
    }
    // Runs a job of the host, and what it does every so often on a thread of its own, while events run.
    template <class JOB, class OTHER_JOB>
    void run_with_events(JOB job, OTHER_JOB other_job) {
        testing::internal::CaptureStdout(); // the line of every eighth sample is of no interest here
        std::atomic<int> running{3};
        auto threads = run_on_threads(4, [&](std::uint64_t thread) {
            for (std::uint64_t round = 0; thread == 3 && running != 0; ++round)
                other_job(round);
            if (thread < 3) {
                event_threads[thread].run(thread);
                --running;
            }
        });
        for (std::uint64_t round = 0; running != 0; ++round)
            job(round);
        threads.clear();
        testing::internal::GetCapturedStdout();
    }

    std::int64_t live_bytes() const {
        std::int64_t sum = 0;
        for (const EVENT_THREAD& thread : event_threads)
            for (const auto& [block, size] : thread.live)
                sum += static_cast<std::int64_t>(size);
        return sum;
    }
    void expect_all_credited_in_the_end() {
        for (EVENT_THREAD& thread : event_threads)
            while (!thread.live.empty())
                thread.release_first();
        for (std::uint32_t id = 0; id < pbin_stats->size(); ++id)
            ASSERT_EQ(pbin_stats->figures(id).current_bytes, 0) << id;
        for (std::uint32_t id = 0; id < ptag_stats->size(); ++id)
            ASSERT_EQ(ptag_stats->figures(id).current_bytes, 0) << id;
    }
};

TEST_F(THREADS_TEST, EverythingAddsUp) {
    run_with_events(open_and_close, [](std::uint64_t round) {
        mem_set_timeline_label("label " + std::to_string(round));
        checked_last_row(round % 2 == 0 ? mem_dump_tbb_module_tracking
                                        : mem_dump_tbb_profile_bin_tag_timeline_tracking);
        std::ostringstream stream;
        mem_dump_tbb_profile_bin_stats_tracking(stream);
        mem_dump_tbb_profile_bin_tag_stats_tracking(stream);
        // Every row has a name of the host's: the tables never run ahead of the names.
        EXPECT_EQ(stream.str().find("Other"), std::string::npos);
    });
    // Nothing moves any more: the last rows are what the records say, module by module and tag by tag.
    mem_user_snapshot_tracking_data();
    const std::vector<std::int64_t> modules = checked_last_row(mem_dump_tbb_module_tracking);
    ASSERT_EQ(modules.size(), MODULES + 1);
    EXPECT_EQ(std::accumulate(modules.begin(), modules.end(), std::int64_t{0}), live_bytes());
    const std::vector<std::int64_t> tags = checked_last_row(mem_dump_tbb_profile_bin_tag_timeline_tracking);
    ASSERT_EQ(tags.size(), ptag_stats->size());
    for (std::uint32_t tag = 0; tag < tags.size(); ++tag)
        EXPECT_EQ(tags[tag], ptag_stats->figures(tag).current_bytes);
    EXPECT_EQ(current_bytes(*ptag_stats), live_bytes());
    EXPECT_EQ(current_bytes(*pbin_stats), live_bytes());
    EXPECT_EQ(mem_get_global_current().bytes.load(), live_bytes());
    expect_all_credited_in_the_end();
}

TEST_F(THREADS_TEST, ResetsComeInBetween) {
    run_with_events(open_and_close, [](std::uint64_t round) {
        mem_reset_tracking_entries();
        if (round % 8 == 0)
            checked_last_row(mem_dump_tbb_profile_bin_tag_timeline_tracking);
    });
    // A reset leaves the bins alone, so their figures are whole whatever has come in between.
    EXPECT_EQ(current_bytes(*pbin_stats), live_bytes());
    EXPECT_EQ(mem_get_global_current().bytes.load(), live_bytes());
    mem_reset_tracking_entries();
    expect_all_credited_in_the_end();
    EXPECT_EQ(ptag_stats->size(), 0U);
    allocate(0xA000, 40, {PARSE});
    EXPECT_EQ(current_bytes(*ptag_stats), 40);
}

// A host's threads that go on while the process ends find the tracker or nothing.
TEST_F(THREADS_TEST, TheTeardownWaitsForHosts) {
    std::atomic<bool> stop{false};
    std::atomic<int> rounds{0};
    auto hosts = run_on_threads(3, [&](std::uint64_t) {
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
}
