// The exact text of the bin and tag statistics.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/reports/pb_stats_report.h"
#include "vbx/mem/tracker.h"

#include <iomanip>
#include <sstream>

namespace {

constexpr const char* BYTES_HEAD =
    "A title\n\nName\tMax bytes\tPeak bytes\tCumulative bytes\tCurrent bytes\n";
constexpr const char* MIB_HEAD = "A title\n\nName\tMax MiB\tPeak MiB\tCumulative MiB\tCurrent MiB\n";

std::string dump(bool (*report)(std::ostream&)) {
    std::ostringstream stream;
    EXPECT_TRUE(report(stream));
    return stream.str();
}

} // namespace

class PB_STATS_REPORT_TEST : public testing::Test {
  protected:
    MEM_PB_STATS_TABLE table;
    MEM_PB_TABLE names;
    std::ostringstream stream;

    PB_STATS_REPORT_TEST() {
        for (const char* name : {"Root::skipped", "Root::deep", "Root::opened for nothing"})
            names.open(name);
    }
    void fill() {
        table.add(0, 1048576);
        table.snapshot_peak();
        table.add(0, 1536);
        table.add(2, 123456789012);
        table.subtract(2, 123456789012);
        table.subtract(0, 1048576 + 1536 + 1024);
    }
};

TEST_F(PB_STATS_REPORT_TEST, AnEmptyTableHasNoRows) {
    mem_dump_pb_stats(table, stream, "A title", names);
    mem_dump_pb_stats_mib(table, stream, "A title", names);
    EXPECT_EQ(stream.str(), std::string(BYTES_HEAD) + MIB_HEAD);
}

TEST_F(PB_STATS_REPORT_TEST, BytesStandInTheStreamsOwnFormat) {
    fill();
    mem_dump_pb_stats(table, stream, "A title", names);
    EXPECT_EQ(stream.str(), std::string(BYTES_HEAD) + "Root\t1050112\t1048576\t1050112\t-1024\n"
                                                      "Root::skipped\t0\t0\t0\t0\n"
                                                      "Root::deep\t123456789012\t0\t123456789012\t0\n");
    std::ostringstream signs;
    signs << std::showpos;
    mem_dump_pb_stats(table, signs, "A title", names);
    EXPECT_NE(signs.str().find("Root\t+1050112\t+1048576\t+1050112\t-1024\n"), std::string::npos);
}

TEST_F(PB_STATS_REPORT_TEST, MebibytesHaveThreeDecimalsOnAnyStream) {
    fill();
    stream << std::scientific << std::setprecision(9);
    mem_dump_pb_stats_mib(table, stream, "A title", names);
    EXPECT_EQ(stream.str(), std::string(MIB_HEAD) + "Root\t1.001\t1.000\t1.001\t-0.001\n"
                                                    "Root::skipped\t0.000\t0.000\t0.000\t0.000\n"
                                                    "Root::deep\t117737.569\t0.000\t117737.569\t0.000\n");
    stream.str("");
    stream << 1.5;
    EXPECT_EQ(stream.str(), "1.500000000e+00"); // the format is the host's again
}

class PB_STATS_EXPORT_TEST : public TRACKER_TEST {};

TEST_F(PB_STATS_EXPORT_TEST, TablesAreNamedAndFollowTheReset) {
    start(MEM_GRANULARITY_PER_BIN_DETAILED);
    mem_open_profile_bin("parse", "load");
    allocate(0xA000, 100, {});
    const std::string heading = "\n\nName\tMax bytes\tPeak bytes\tCumulative bytes\tCurrent bytes\n";
    EXPECT_EQ(dump(mem_dump_tbb_profile_bin_stats_tracking),
              "Memory Tracking - Profile Bin Stats" + heading +
                  "Root\t0\t0\t0\t0\nload::parse\t100\t0\t100\t100\n");
    EXPECT_EQ(dump(mem_dump_tbb_profile_bin_tag_stats_tracking),
              "Memory Tracking - Profile Tag Stats" + heading + "Root\t0\t0\t0\t0\nload\t100\t0\t100\t100\n");
    mem_reset_tracking_entries();
    EXPECT_EQ(dump(mem_dump_tbb_profile_bin_tag_stats_tracking),
              "Memory Tracking - Profile Tag Stats" + heading);
    std::ostringstream failed;
    failed.setstate(std::ios_base::badbit);
    EXPECT_TRUE(mem_dump_tbb_profile_bin_stats_tracking(failed));
    mem_tbb_tracker_teardown();
    EXPECT_EQ(dump(mem_dump_tbb_profile_bin_stats_tracking), "Memory Tracking - Profile Bin Stats" + heading);
}
