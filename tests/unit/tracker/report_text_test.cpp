// How reports come out on streams of any kind and at the edges of their figures.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/reports/pb_stats_report.h"
#include "vbx/mem/mem_tbb_tracker/reports/timeline_report.h"

#include <deque>
#include <iomanip>
#include <locale>
#include <sstream>

namespace {

const std::string PLAIN_TITLE = "MEM: TBB Module Tracking Memory Timeline.\n\n";
const std::string DETAILED_TITLE = "MEM: TBB Module Tracking Detailed Memory Timeline.\n\n";
const std::string NO_TIME = "Time spent dumping:\t0 clicks.\t0 seconds.\n";

struct THOUSANDS : std::numpunct<char> {
    char do_thousands_sep() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
};
void group_digits(std::ostream& stream) {
    stream.imbue(std::locale(std::locale::classic(), new THOUSANDS));
}

} // namespace

class TIMELINE_TEXT_TEST : public testing::Test {
  protected:
    struct NUMBERED_ROWS final : MEM_ROW_LABELS {
        std::string label = "0";
        std::string_view current() override { return label; }
        void advance() override { ++label[0]; }
    };
    std::deque<MEM_SERIES> series;
    std::vector<MEM_TIMELINE_COLUMN> columns;
    std::ostringstream plain, detailed;

    void add(const std::string& name, const std::vector<std::int64_t>& samples) {
        for (MEM_SERIES& added = series.emplace_back(); const std::int64_t sample : samples)
            added.append(sample);
        columns.push_back({name, &series.back()});
    }
    bool write(std::uint64_t num_rows) {
        NUMBERED_ROWS labels;
        return mem_write_timeline(plain, detailed, columns, num_rows, labels);
    }
};

TEST_F(TIMELINE_TEXT_TEST, RanksThePlainColumnsInTheFormatOfTheStream) {
    add("big", {0, 1234567, -1});
    add("below", {-5, -5, -3});
    add("zero", {0, 0, 0});
    add("short", {7}); // ends before the rows do
    group_digits(plain);
    detailed << std::hex << std::showbase;
    fake_set_clock({1000, 1235567});
    EXPECT_TRUE(write(3));
    // Clicks as a whole number, and both outputs tell the same time.
    const std::string time = "Time spent dumping:\t1234567 clicks.\t1234.57 seconds.\n";
    EXPECT_EQ(plain.str(), PLAIN_TITLE +
                               "\tMisc\tbelow\tzero\tshort\tbig\n"
                               "0\t0\t-5\t0\t7\t0\n1\t0\t-5\t0\t0\t1,234,567\n2\t0\t-3\t0\t0\t-1\n" +
                               time);
    EXPECT_TRUE(detailed.str().starts_with(DETAILED_TITLE + "\tbig\tbelow\tzero\tshort\n0\t0\t0xfffff"));
    EXPECT_NE(detailed.str().find("\n1\t0x12d687\t"), std::string::npos);
    EXPECT_TRUE(detailed.str().ends_with(time));
}

TEST_F(TIMELINE_TEXT_TEST, MiscIsTheSumOfAllButTheEighteenLargest) {
    for (const int count : {0, 17, 18, 19, 200}) {
        columns.clear();
        std::string names, figures;
        std::int64_t misc = 0;
        for (int index = 0; index < count; ++index) {
            const std::int64_t value = 100 + index / 2; // pairs of neighbours are even, and keep their order
            add("m" + std::to_string(index), {1, value});
            if (index < count - 18) {
                misc += value;
                continue;
            }
            names += "\tm" + std::to_string(index);
            figures += "\t" + std::to_string(value);
        }
        plain.str("");
        EXPECT_TRUE(write(2));
        EXPECT_TRUE(plain.str().starts_with(PLAIN_TITLE + "\tMisc" + names + "\n0\t")) << plain.str();
        EXPECT_TRUE(plain.str().ends_with("\n1\t" + std::to_string(misc) + figures + "\n" + NO_TIME));
    }
}

TEST_F(TIMELINE_TEXT_TEST, AFailedStreamStopsBoth) {
    for (std::ostringstream* failed : {&plain, &detailed}) {
        failed->setstate(std::ios_base::failbit);
        EXPECT_FALSE(write(1));
        failed->clear();
        EXPECT_EQ(plain.str() + detailed.str(), "");
    }
    detailed.setstate(std::ios_base::eofbit); // no failure
    fake_set_clock({-1, 7});
    EXPECT_TRUE(write(0));
    EXPECT_EQ(plain.str(), PLAIN_TITLE + "\tMisc\nError timing this dump.\n");
}

class SITE_TEXT_TEST : public TRACKER_TEST {};

TEST_F(SITE_TEXT_TEST, IsItsOwnWhateverTheStream) {
    start(MEM_GRANULARITY_PER_FILELINE);
    allocate(0xA000, 1234567, {PARSE});
    fake_set_clock({100, 1350});
    std::ostringstream stream;
    group_digits(stream);
    stream << std::hex << std::showbase;
    EXPECT_TRUE(mem_dump_tbb_fileline_tracking(stream));
    EXPECT_TRUE(
        stream.str().ends_with("\nOTHER\t0\t0\t0\t0\t0\t0\t0\t0\t0\t0\t\t\t0\t\n0000000000001000\t1234567\t"
                               "1234567\t0\t1234567\t1234567\t0\t1\t1\t0\t1\tparser\t/src/parse.cpp\t10\t"
                               "parse\nTime spent dumping:\t1250 clicks.\t1.25 seconds.\n"));
}

TEST(BIN_TEXT_TEST, MebibytesHaveThreeDecimalsOnAnyStream) {
    MEM_PB_STATS_TABLE table;
    MEM_PB_TABLE names;
    for (const char* name : {"Root::skipped", "Root::deep", "Root::opened for nothing"})
        names.open(name);
    table.add(0, 1048576);
    table.snapshot_peak();
    table.add(0, 1536);
    table.add(2, 123456789012);
    table.subtract(2, 123456789012);
    table.subtract(0, 1048576 + 1536 + 1024);
    std::ostringstream bytes, mebibytes;
    bytes << std::showpos;
    mem_dump_pb_stats(table, bytes, "A title", names);
    EXPECT_TRUE(bytes.str().ends_with("\nRoot\t+1050112\t+1048576\t+1050112\t-1024\n"
                                      "Root::skipped\t+0\t+0\t+0\t+0\n"
                                      "Root::deep\t+123456789012\t+0\t+123456789012\t+0\n"));
    mebibytes << std::scientific << std::setprecision(9);
    mem_dump_pb_stats_mib(table, mebibytes, "A title", names);
    mebibytes << 1.5; // the format is the host's again
    EXPECT_EQ(mebibytes.str(),
              "A title\n\nName\tMax MiB\tPeak MiB\tCumulative MiB\tCurrent MiB\n"
              "Root\t1.001\t1.000\t1.001\t-0.001\nRoot::skipped\t0.000\t0.000\t0.000\t0.000\n"
              "Root::deep\t117737.569\t0.000\t117737.569\t0.000\n1.500000000e+00");
}
