// The label of the timelines follows the tags of the profile bins.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker/timelines/label_timeline.h"
#include "vbx/mem/mem_tbb_tracker_profile_bins/profile_bins.h"
#include "vbx/mem/tracker.h"

namespace {

// The label of a sample that is taken now.
std::string label() {
    mem_user_snapshot_tracking_data();
    const MEM_SPIN_GUARD guard(mem_label_timeline->lock);
    return mem_label_timeline->labels().runs.back().value;
}
void close_bin(const std::string& tag = {}) {
    std::uint64_t figures[3];
    mem_close_profile_bin(tag, &figures[0], &figures[1], &figures[2]);
}

constexpr std::uint32_t REGIONS = MEM_GRANULARITY_PER_BIN;
constexpr std::uint32_t MODULES = MEM_GRANULARITY_PER_LIBRARY;

} // namespace

class PROFILE_BIN_LABELS_TEST : public TRACKER_TEST {};

TEST_F(PROFILE_BIN_LABELS_TEST, TheInnermostOpenTagIsTheLabel) {
    start(REGIONS | MODULES); // regions carry the labels, without any charging
    EXPECT_EQ(label(), "");
    mem_open_profile_bin("a", "outer");
    mem_open_profile_bin("b", "inner");
    EXPECT_EQ(label(), "inner");
    mem_open_profile_bin("c", ""); // a bin without a tag moves no label
    mem_set_timeline_label("by hand");
    close_bin();
    EXPECT_EQ(label(), "by hand");
    close_bin("unknown"); // drops nothing, but the newest tag is the label again
    EXPECT_EQ(label(), "inner");
    mem_open_profile_bin("b", "inner");
    close_bin("inner");
    EXPECT_EQ(label(), "inner");
    close_bin("inner");
    EXPECT_EQ(label(), "outer");
    mem_open_profile_bin("d", "");
    close_bin("outer");
    EXPECT_EQ(label(), "");
}

struct NO_LABEL_CASE {
    const char* name;
    std::uint32_t mask;
};
class NO_LABELS_TEST : public TRACKER_TEST, public testing::WithParamInterface<NO_LABEL_CASE> {};

TEST_P(NO_LABELS_TEST, TheLabelIsTheHostsAlone) {
    start(GetParam().mask);
    mem_set_timeline_label("by hand");
    mem_open_profile_bin("a", "tag");
    EXPECT_EQ(label(), "by hand");
    close_bin("tag");
    EXPECT_EQ(label(), "by hand");
}

INSTANTIATE_TEST_SUITE_P(Without, NO_LABELS_TEST,
                         testing::Values(NO_LABEL_CASE{"Modules", REGIONS | MEM_GRANULARITY_PER_BIN_DETAILED},
                                         NO_LABEL_CASE{"Regions",
                                                       MODULES | MEM_GRANULARITY_PER_BIN_DETAILED}),
                         [](const auto& test) { return test.param.name; });

TEST_F(PROFILE_BIN_LABELS_TEST, OnceDisabledTheyStayAsTheyAre) {
    start(REGIONS | MODULES);
    mem_open_profile_bin("a", "outer");
    mem_open_profile_bin("b", "inner");
    mem_disable_profile_bin_tag_timeline_labels();
    EXPECT_EQ(MEM_PROFILE_BINS::get_instance().labels.stack.capacity(), 0U);
    close_bin("inner");
    mem_open_profile_bin("c", "other");
    EXPECT_EQ(label(), "inner");
    mem_set_timeline_label("by hand");
    EXPECT_EQ(label(), "by hand");
}

TEST_F(PROFILE_BIN_LABELS_TEST, InAForkedChildEveryCallReturns) {
    start(MEM_GRANULARITY_ALL);
    mem_open_profile_bin("a", "tag");
    allocate(0xA000, 100, {PARSE});
    // Threads that the child doesn't have stand in both tables.
    new MEM_PB_STATS_TABLE::STILL(*ptag_stats);
    mem_rank_release(MEM_LOCK_RANK::leaf);
    new MEM_PB_STATS_TABLE::STILL(*pbin_stats);
    mem_rank_release(MEM_LOCK_RANK::leaf);
    mem_abandon_tracker_after_fork();
    mem_open_profile_bin("b", "tag");
    close_bin("tag");
    close_bin("tag");
    mem_reset_tracking_entries();
    mem_tbb_tracking_flush_peak();
    pbin_stats->snapshot_peak();
    ptag_stats->snapshot_peak();
    EXPECT_EQ(pbin_stats->figures(1).peak_bytes, 100);
}
