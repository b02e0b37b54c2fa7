// The gate under real threads and the order of locks; then events on many threads
// while the host opens and closes bins, sets labels, takes samples and writes reports, resets the tables or
// ends.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/base/library_lock.h"
#include "vbx/mem/base/spin_lock.h"
#include "vbx/mem/base/tracker_gate.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker/state/tracker_use.h"
#include "vbx/mem/tracker.h"

#include <atomic>
#include <deque>
#include <memory>
#include <numeric>
#include <random>
#include <sstream>

// With the fence of all threads and where there is none. One of the mice has no words of its own. What
// happens without a fence happens seldom: so they are counted, too.
class GATE_FENCE_TEST : public testing::TestWithParam<bool> {};

TEST_P(GATE_FENCE_TEST, CatsSeeNoMouseAndMiceNoCat) {
    constexpr int CATS = 2000;
    tbbk_threads_need_fences = tbbk_threads_need_fences || GetParam();
    MEM_TRACKER_GATE gate;
    std::int64_t first = 0, second = 0; // equal but while a cat is inside
    std::atomic<bool> stop{false};
    auto mice = run_on_threads(3, [&](std::uint64_t thread) {
        if (thread == 0)
            fake_live_without_words();
        std::int64_t unequal = 0;
        while (!stop) {
            const MEM_GATE_MOUSE mouse(gate);
            unequal += first != second;
        }
        EXPECT_EQ(unequal, 0);
    });
    for (int round = 0; round < CATS; ++round) {
        const MEM_GATE_CAT cat(gate);
        ++first;
        std::this_thread::yield();
        ++second;
    }
    stop = true;
    EXPECT_EQ(fake_fences, CATS);
}
INSTANTIATE_TEST_SUITE_P(, GATE_FENCE_TEST, testing::Bool());

TEST(GATE_TEST, GivesUpWaitingForAMouseThatStaysAndTellsOfBrokenUse) {
    MEM_TRACKER_GATE gate;
    {
        const MEM_GATE_MOUSE mouse(gate); // begins while the process has no other thread
        run_on_threads(1, [&gate](std::uint64_t) { EXPECT_FALSE(gate.enter_as_cat_within(0)); });
    }
    EXPECT_DEATH(gate.leave(MEM_GATE_ROLE::mouse), "MEM: internal error: mice >= 0 ");
    run_on_threads(1, [&gate](std::uint64_t) { gate.enter(MEM_GATE_ROLE::mouse); });
    EXPECT_FALSE(gate.enter_as_cat_within(0));
    run_on_threads(1, [&gate](std::uint64_t) { gate.enter(MEM_GATE_ROLE::mouse); }); // no cat approaches now
}

// Threads that end while the last initialiser goes wait for it, and somebody may wait for them.
TEST(LIBRARY_LOCK_TEST, LetsAllThatWaitThroughWhenItGoes) {
    MEM_LIBRARY_LOCK& lock = mem_library_lock;
    lock.create();
    lock.enter();
    auto waiting = run_on_threads(3, [](std::uint64_t) { const MEM_LIBRARY_GUARD guard; });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    lock.destroy();
    lock.leave();
    waiting.clear();
    EXPECT_FALSE(lock.exists());
}

#if defined(VBX_RANK_CHECK)
TEST(LOCK_RANK_TEST, LocksAreTakenInRisingRank) {
    MEM_SPIN_LOCK leaf{MEM_LOCK_RANK::leaf}, other_leaf{MEM_LOCK_RANK::leaf};
    MEM_TRACKER_GATE gate;
    const MEM_SPIN_GUARD guard(leaf);
    EXPECT_DEATH(const MEM_SPIN_GUARD two(other_leaf), "lock_order_is_kept");
    EXPECT_DEATH(const MEM_GATE_MOUSE mouse(gate), "lock_order_is_kept");
}
#endif

namespace {

constexpr std::uint64_t MODULES = 30; // so that the plain output has a "Misc" with something in it
constexpr std::uint64_t FIRST_SITE = 0x4000;
constexpr std::uint64_t EVENTS = 20000;
constexpr std::int64_t SIZE = 48; // of every block
constexpr std::uint64_t KEPT_BLOCK = 0x10;

// Allocates and frees in a stretch of addresses of its own, a few dozen blocks live at a time.
struct EVENT_THREAD {
    std::deque<std::uint64_t> live;

    void run(std::uint64_t number) {
        std::mt19937_64 random(number);
        for (std::uint64_t event = 0; event < EVENTS; ++event) {
            if (live.size() > 50 || (!live.empty() && random() % 3 == 0)) {
                release_first();
                continue;
            }
            live.push_back(((number + 1) << 24) + 16 * event);
            // Modules turn up one by one over the run.
            allocate(live.back(), SIZE, {FIRST_SITE + random() % (1 + event * MODULES / EVENTS)});
        }
    }
    void release_first() {
        release(live.front(), SIZE);
        live.pop_front();
    }
};

using ROW = std::vector<std::int64_t>;

std::int64_t sum_of(const ROW& row) {
    return std::accumulate(row.begin(), row.end(), std::int64_t{0});
}
std::vector<ROW> rows_of(const std::string& report) {
    std::istringstream lines(report);
    lines.ignore(1000, '\n').ignore(1000, '\n').ignore(100'000, '\n');
    std::vector<ROW> rows;
    for (std::string line; std::getline(lines, line) && !line.starts_with("Time");) {
        std::istringstream cells(line.substr(std::min(line.find('\t'), line.size())));
        rows.emplace_back(std::istream_iterator<std::int64_t>(cells), std::istream_iterator<std::int64_t>());
    }
    return rows;
}

// The last row of a report whose rows add up to the same in both outputs.
ROW checked_last_row(bool (*report)(std::ostream&, std::ostream&)) {
    std::ostringstream plain, detailed;
    EXPECT_TRUE(report(plain, detailed));
    const std::vector<ROW> plain_rows = rows_of(plain.str()), rows = rows_of(detailed.str());
    EXPECT_EQ(plain_rows.size(), rows.size());
    for (std::size_t row = 0; row < rows.size(); ++row)
        EXPECT_EQ(sum_of(plain_rows[row]), sum_of(rows[row])) << "row " << row;
    return rows.empty() ? ROW() : rows.back();
}

ROW current_bytes(const MEM_PB_STATS_TABLE& table) {
    ROW bytes;
    for (std::uint32_t id = 0; id < table.size(); ++id)
        bytes.push_back(table.figures(id).current_bytes);
    return bytes;
}

} // namespace

class THREADS_TEST : public TRACKER_TEST {
  protected:
    EVENT_THREAD event_threads[4]; // the last is the host's, which keeps one block

    THREADS_TEST() {
        for (std::uint64_t module = 0; module < MODULES; ++module)
            fake_define_symbol(FIRST_SITE + module, {"f", "/f.cpp", 1, "module" + std::to_string(module)});
        start(MEM_GRANULARITY_ALL, "70");
        allocate(event_threads[3].live.emplace_back(KEPT_BLOCK), SIZE, {FIRST_SITE});
    }
    // Bins are opened and samples taken while events run, with a job on a thread of its own beside.
    void run_with(std::function<void(std::uint64_t)> job) {
        testing::internal::CaptureStdout(); // the line of every eighth sample is of no interest here
        std::atomic<int> running{3};
        auto threads = run_on_threads(4, [&](std::uint64_t thread) {
            for (std::uint64_t round = 0; thread == 3 && running != 0; ++round)
                job(round);
            if (thread < 3) {
                event_threads[thread].run(thread);
                --running;
            }
        });
        for (std::uint64_t round = 0; running != 0; ++round) {
            const MEM_PROFILE_BIN_SCOPE outer("bin", "tag" + std::to_string(round % 300));
            const MEM_PROFILE_BIN_SCOPE inner("bin" + std::to_string(round % 2000));
            mem_user_snapshot_tracking_data();
        }
        threads.clear();
        testing::internal::GetCapturedStdout();
    }
    std::int64_t live_bytes() const {
        std::size_t blocks = 0;
        for (const EVENT_THREAD& thread : event_threads)
            blocks += thread.live.size();
        return static_cast<std::int64_t>(blocks) * SIZE;
    }
    void expect_all_credited_in_the_end() {
        for (EVENT_THREAD& thread : event_threads)
            while (!thread.live.empty())
                thread.release_first();
        EXPECT_EQ(current_bytes(*pbin_stats), ROW(pbin_stats->size()));
        EXPECT_EQ(current_bytes(*ptag_stats), ROW(ptag_stats->size()));
    }
};

TEST_F(THREADS_TEST, EverythingAddsUp) {
    run_with([](std::uint64_t round) {
        mem_set_timeline_label("label " + std::to_string(round));
        checked_last_row(round % 2 == 0 ? mem_dump_tbb_module_tracking
                                        : mem_dump_tbb_profile_bin_tag_timeline_tracking);
        std::ostringstream stream;
        mem_dump_tbb_profile_bin_stats_tracking(stream);
        // Every row has a name of the host's: the tables never run ahead of the names.
        EXPECT_EQ(stream.str().find("Other"), std::string::npos);
    });
    // Nothing moves any more: the last rows are what the records say.
    mem_user_snapshot_tracking_data();
    const ROW modules = checked_last_row(mem_dump_tbb_module_tracking);
    EXPECT_EQ(modules.size(), MODULES + 1);
    EXPECT_EQ(sum_of(modules), live_bytes());
    EXPECT_EQ(checked_last_row(mem_dump_tbb_profile_bin_tag_timeline_tracking), current_bytes(*ptag_stats));
    EXPECT_EQ(sum_of(current_bytes(*ptag_stats)), live_bytes());
    EXPECT_EQ(sum_of(current_bytes(*pbin_stats)), live_bytes());
    expect_all_credited_in_the_end();
}

TEST_F(THREADS_TEST, ResetsComeInBetween) {
    run_with([](std::uint64_t round) {
        mem_reset_tracking_entries();
        if (round % 8 == 0)
            checked_last_row(mem_dump_tbb_profile_bin_tag_timeline_tracking);
    });
    // A reset leaves the bins alone, so their figures are whole whatever has come in between.
    EXPECT_EQ(sum_of(current_bytes(*pbin_stats)), live_bytes());
    EXPECT_EQ(mem_get_global_current().bytes.load(), live_bytes());
    mem_reset_tracking_entries();
    expect_all_credited_in_the_end();
    EXPECT_EQ(ptag_stats->size(), 0U);
}

// Copies and reports that are made while events run have every record as it was between two of them.
TEST_F(THREADS_TEST, RecordsAreCopiedWhole) {
    run_with([](std::uint64_t) {
        for (int copy = 0; copy < 1000; ++copy) {
            MEM_ADDRESS_TRACKER site;
            ASSERT_TRUE(mem_get_address_tracker(reinterpret_cast<void*>(KEPT_BLOCK), site));
            ASSERT_EQ(site.current_bytes, SIZE * site.current_blocks);
            ASSERT_EQ(site.cumulative_bytes, SIZE * site.cumulative_blocks);
        }
        std::ostringstream report;
        mem_dump_tbb_fileline_tracking(report);
        for (const ROW& row : rows_of(report.str()))
            EXPECT_EQ(row.at(0), SIZE * row.at(6));
        const MEM_PB_STATS_TABLE::STILL still(*ptag_stats);
        const ROW bytes = current_bytes(*ptag_stats);
        std::this_thread::yield();
        EXPECT_EQ(current_bytes(*ptag_stats), bytes);
    });
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
            mem_reset_tracking_entries();
            mem_dump_tbb_module_tracking(plain, detailed);
            mem_get_module_tracker("OTHER", record);
        }
    });
    const EMPTY_FOLDER folder;
    auto use = std::make_unique<MEM_TRACKER_USE>();
    std::atomic<bool> has_ended{false};
    auto teardown = run_on_threads(1, [&has_ended](std::uint64_t) {
        mem_tbb_tracker_teardown();
        has_ended = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(has_ended);
    use.reset();
    teardown.clear();
    for (const int then = rounds; rounds < then + 20;)
        std::this_thread::yield();
    stop = true;
}
