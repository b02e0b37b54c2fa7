// What a sample of the bin-tag timeline holds, and how its rows and columns are named.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/reports/bin_row_labels.h"
#include "vbx/mem/mem_tbb_tracker_profile_bins/profile_bins.h"

#include <sstream>

namespace {

std::string tag_rows() {
    std::ostringstream plain, detailed;
    EXPECT_TRUE(mem_dump_tbb_profile_bin_tag_timeline_tracking(plain, detailed));
    const std::string text = detailed.str();
    const std::size_t begin = text.find("\n\n") + 2;
    return text.substr(begin, text.find("Time spent") - begin);
}

void close_bin(const std::string& tag) {
    std::uint64_t ignored;
    mem_close_profile_bin(tag, &ignored, &ignored, &ignored);
}

} // namespace

class BIN_TAG_TIMELINE_TEST : public TRACKER_TEST {
  protected:
    void start_with_period(const char* period) {
        set_variable("mem_profile_library_snapshot_period", period);
        start(MEM_GRANULARITY_PER_BIN_DETAILED);
    }
};

TEST_F(BIN_TAG_TIMELINE_TEST, ColumnsAreTagsAndRowsAreBins) {
    start_with_period("1");
    allocate(0xA000, 100, {});
    allocate(0xA100, 20, {});
    mem_open_profile_bin("lex", "loading");
    mem_open_profile_bin("unseen", "");
    close_bin("");
    allocate(0xB000, 3, {}); // charged before the sample
    mem_open_profile_bin("tables", "");
    release(0xA100, 20); // sampled before the credit
    close_bin("");
    close_bin("loading");
    release(0xB000, 3);
    mem_user_snapshot_tracking_data();
    EXPECT_EQ(tag_rows(), "\tRoot\tloading\n"
                          "Root\t100\t0\n"
                          "Root\t120\t0\n"
                          "loading::lex\t120\t3\n"
                          "loading::tables\t120\t3\n"
                          "Root\t100\t3\n"
                          "Root\t100\t0\n");
}

TEST_F(BIN_TAG_TIMELINE_TEST, ASampleThatFindsNoTagHasNoColumns) {
    start_with_period("1000");
    release(0xF000, 8); // the first event: nothing was ever charged
    EXPECT_EQ(tag_rows(), "\nRoot\n");
}

TEST_F(BIN_TAG_TIMELINE_TEST, RowsBehindAResetBearTheFirstBins) {
    start_with_period("1");
    mem_open_profile_bin("first", "a");
    allocate(0xA000, 1, {});
    close_bin("a");
    mem_open_profile_bin("second", "b");
    allocate(0xB000, 2, {});
    EXPECT_EQ(tag_rows(), "\tRoot\ta\tb\na::first\t0\t1\t0\nb::second\t0\t1\t2\n");
    mem_reset_tracking_entries();
    EXPECT_EQ(tag_rows(), "\n");
    release(0xA000, 1); // its tag is gone
    allocate(0xC000, 4, {});
    EXPECT_EQ(tag_rows(), "\tRoot\ta\tb\na::first\t0\t0\t0\nb::second\t0\t0\t4\n");
}

TEST_F(BIN_TAG_TIMELINE_TEST, BinsBeyondSixteenBitsShareOneName) {
    start_with_period("1000000");
    MEM_PB_TABLE& bins = MEM_PROFILE_BINS::get_instance().m_bins();
    for (int bin = 1; bin < 65535; ++bin)
        bins.find_or_add("b" + std::to_string(bin));
    bins.open("the last that fits"); // id 65535
    allocate(0xA000, 1, {});
    EXPECT_EQ(tag_rows(), "\tRoot\nthe last that fits\t1\n");
    bins.open("one too many");
    mem_user_snapshot_tracking_data();
    bins.open("b7");
    mem_user_snapshot_tracking_data();
    EXPECT_EQ(tag_rows(), "\tRoot\nOther\t1\nOther\t1\nb7\t1\n");
}

TEST_F(BIN_TAG_TIMELINE_TEST, AnswersTrueWhateverBecomesOfTheStreams) {
    std::ostringstream plain, detailed;
    EXPECT_TRUE(mem_dump_tbb_profile_bin_tag_timeline_tracking(plain, detailed)); // no tracker
    start_with_period("1");
    detailed.setstate(std::ios_base::badbit);
    EXPECT_TRUE(mem_dump_tbb_profile_bin_tag_timeline_tracking(plain, detailed));
    EXPECT_EQ(plain.str(), "");
}

TEST_F(BIN_TAG_TIMELINE_TEST, ARowWithoutABinIsNamedAsAnError) {
    MEM_RUNS<PB_ID> bins;
    bins.append(MEM_ROOT_ID);
    MEM_BIN_ROW_LABELS labels(bins);
    std::ostringstream plain, detailed;
    testing::internal::CaptureStderr();
    EXPECT_TRUE(mem_write_timeline(plain, detailed, {}, 3, labels));
    const std::string said = "Mem tracking bin label iter past the end!";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), said + said);
    EXPECT_NE(plain.str().find("\nRoot\t0\nBinIterError\t0\nBinIterError\t0\nTime"), std::string::npos);
    EXPECT_NE(detailed.str().find("\nRoot\nBinIterError\nBinIterError\nTime"), std::string::npos);
}
