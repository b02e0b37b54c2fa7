// Events on many threads while the host opens and closes bins at full speed, reports are written and resets
// empty the tables.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker_profile_bins/profile_bins.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <sstream>
#include <thread>
#include <vector>

namespace {

using DURATION = std::chrono::milliseconds;

// Runs every job over and over on a thread of its own, for a while. A job gets the number of its round.
void run_at_once(DURATION duration, const std::vector<std::function<void(std::uint64_t)>>& jobs) {
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (const auto& job : jobs)
        threads.emplace_back([&job, &stop] {
            for (std::uint64_t round = 0; !stop; ++round)
                job(round);
        });
    std::this_thread::sleep_for(duration);
    stop = true;
    for (std::thread& thread : threads)
        thread.join();
}

// Allocates and frees in a stretch of addresses of its own, a few dozen blocks live at a time.
struct EVENT_THREAD {
    static constexpr std::uint64_t LIVE = 48;
    std::uint64_t number;
    std::vector<bool> is_live = std::vector<bool>(LIVE);
    std::int64_t live_bytes = 0;

    static std::uint64_t size_of(std::uint64_t slot) { return 16 + 8 * slot; }

    void toggle(std::uint64_t slot) {
        const std::uint64_t block = ((number + 1) << 20) + 0x1010 * slot;
        if (is_live[slot])
            release(block, size_of(slot));
        else
            allocate(block, size_of(slot), {slot % 3 == 0 ? PARSE : QUERY});
        live_bytes += (is_live[slot] ? -1 : 1) * static_cast<std::int64_t>(size_of(slot));
        is_live[slot] = !is_live[slot];
    }
    void toggle_all_live() {
        for (std::uint64_t slot = 0; slot < LIVE; ++slot)
            if (is_live[slot])
                toggle(slot);
    }
};

std::int64_t current_bytes(const MEM_PB_STATS_TABLE& table) {
    std::int64_t sum = 0;
    for (std::uint32_t id = 0; id < table.size(); ++id)
        sum += table.figures(id).current_bytes;
    return sum;
}

void open_and_close(std::uint64_t round) {
    const MEM_PROFILE_BIN_SCOPE outer("o" + std::to_string(round % 7), "t" + std::to_string(round % 300));
    const MEM_PROFILE_BIN_SCOPE inner("i" + std::to_string(round % 2000), round % 3 == 0 ? "inner" : "");
}

} // namespace

class PROFILE_BINS_THREADS_TEST : public TRACKER_TEST, public testing::WithParamInterface<DURATION> {
  protected:
    PROFILE_BINS_THREADS_TEST() {
        // Samples of all timelines join in.
        set_variable("mem_profile_library_snapshot_period", "2000");
    }
    EVENT_THREAD first{0}, second{1};
    // Both event threads, and what else is to go on.
    void run_with_events(std::vector<std::function<void(std::uint64_t)>> jobs) {
        for (EVENT_THREAD* thread : {&first, &second})
            jobs.push_back(
                [thread](std::uint64_t round) { thread->toggle(round * 31 % EVENT_THREAD::LIVE); });
        run_at_once(GetParam(), jobs);
    }
    void expect_all_credited_in_the_end(const MEM_PB_STATS_TABLE& table) {
        for (std::uint32_t id = 0; id < table.size(); ++id)
            ASSERT_EQ(table.figures(id).current_bytes, 0) << id;
    }
};

TEST_P(PROFILE_BINS_THREADS_TEST, EveryBlockIsCreditedWhereItWasCharged) {
    start(MEM_GRANULARITY_ALL);
    std::uint64_t rows = 0;
    run_with_events({open_and_close, [&rows](std::uint64_t) {
                         std::ostringstream stream;
                         mem_dump_tbb_profile_bin_stats_tracking(stream);
                         mem_dump_tbb_profile_bin_tag_stats_tracking(stream);
                         // Every row has a name of the host's: the tables never run ahead of the names.
                         const std::string text = stream.str();
                         EXPECT_EQ(text.find("Other"), std::string::npos);
                         rows = std::max<std::uint64_t>(
                             rows, static_cast<std::uint64_t>(std::ranges::count(text, '\n')));
                     }});
    EXPECT_GT(rows, 8U);
    const std::int64_t live = first.live_bytes + second.live_bytes;
    EXPECT_EQ(current_bytes(*pbin_stats), live);
    EXPECT_EQ(current_bytes(*ptag_stats), live);
    EXPECT_EQ(mem_get_global_current().bytes.load(), live);
    first.toggle_all_live();
    second.toggle_all_live();
    expect_all_credited_in_the_end(*pbin_stats);
    expect_all_credited_in_the_end(*ptag_stats);
}

TEST_P(PROFILE_BINS_THREADS_TEST, ResetsComeInBetween) {
    start(MEM_GRANULARITY_ALL);
    run_with_events({open_and_close, [](std::uint64_t) { mem_reset_tracking_entries(); }});
    // A reset leaves the bins alone, so their figures are whole whatever has come in between.
    EXPECT_EQ(current_bytes(*pbin_stats), first.live_bytes + second.live_bytes);
    EXPECT_EQ(mem_get_global_current().bytes.load(), first.live_bytes + second.live_bytes);
    mem_reset_tracking_entries();
    EXPECT_EQ(ptag_stats->size(), 0U);
    first.toggle_all_live();
    second.toggle_all_live();
    expect_all_credited_in_the_end(*pbin_stats);
    EXPECT_EQ(ptag_stats->size(), 0U);
    first.toggle(5);
    EXPECT_EQ(current_bytes(*ptag_stats), first.live_bytes);
}

INSTANTIATE_TEST_SUITE_P(Milliseconds, PROFILE_BINS_THREADS_TEST,
                         testing::Values(DURATION(300), DURATION(5000)),
                         [](const auto& test) { return std::to_string(test.param.count()); });

// The host walks round and round through known states. A reader that notes how far the host has come before
// and after may have seen only what was on top in between.
TEST(PB_TABLE_TEST, AReadTopStoodThereDuringTheRead) {
    // Deep enough that the stack takes and gives back memory: half of a round opens, the other half closes.
    constexpr std::uint64_t ROUND = 2000;
    constexpr std::uint32_t NAMES = 500;
    const auto name_of = [](std::uint64_t state) { return "bin " + std::to_string(state * 7 % NAMES); };
    MEM_PB_TABLE table;
    std::vector<std::string> top{"Root"}; // behind each step of a round
    std::vector<std::string> stack{"Root"};
    for (std::uint64_t step = 0; step < ROUND; ++step) {
        if (step < ROUND / 2)
            stack.push_back(name_of(step));
        else
            stack.pop_back();
        top.push_back(stack.back());
    }
    std::atomic<std::uint64_t> begun{0};
    std::atomic<std::uint64_t> done{0};
    std::atomic<int> changes_to_see{5000};
    const auto read = [&] {
        for (std::string before; changes_to_see > 0;) {
            const std::uint64_t earliest = done;
            const std::string seen = table.name_of(table.get_curr_id());
            const std::uint64_t latest = std::min<std::uint64_t>(begun, earliest + ROUND);
            bool stood_there = false;
            for (std::uint64_t step = earliest; step <= latest && !stood_there; ++step)
                stood_there = top[step % ROUND] == seen;
            if (!stood_there) {
                ADD_FAILURE() << seen << " between " << earliest << " and " << latest;
                changes_to_see = 0;
            }
            changes_to_see -= seen != before;
            before = seen;
        }
    };
    std::thread first(read);
    std::thread second(read);
    for (std::uint64_t step = 0; changes_to_see > 0; ++step) {
        begun = step + 1;
        if (step % ROUND < ROUND / 2)
            table.open(name_of(step % ROUND));
        else
            table.pop();
        done = step + 1;
    }
    first.join();
    second.join();
}
