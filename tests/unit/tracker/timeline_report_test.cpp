// The exact text of a timeline, over series that tests invent, and the samples of the manual.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/reports/timeline_report.h"

#include <algorithm>
#include <deque>
#include <locale>
#include <sstream>

namespace {

constexpr const char* PLAIN_TITLE = "MEM: TBB Module Tracking Memory Timeline.\n\n";
constexpr const char* DETAILED_TITLE = "MEM: TBB Module Tracking Detailed Memory Timeline.\n\n";
constexpr const char* NO_TIME = "Time spent dumping:\t0 clicks.\t0 seconds.\n";

struct THOUSANDS : std::numpunct<char> {
    char do_thousands_sep() const override { return ','; }
    std::string do_grouping() const override { return "\3"; }
};

// Labels from a list, "end" behind it.
class LISTED_LABELS final : public MEM_ROW_LABELS {
  public:
    explicit LISTED_LABELS(std::vector<std::string> labels) : m_labels(labels.begin(), labels.end()) {}
    std::string_view current() override {
        return m_labels.empty() ? std::string_view("end") : m_labels.front();
    }
    void advance() override {
        if (!m_labels.empty())
            m_labels.pop_front();
    }

  private:
    std::deque<std::string> m_labels;
};

std::vector<std::string> fields_of(const std::string& line) {
    std::vector<std::string> fields(1);
    for (const char character : line)
        if (character == '\t')
            fields.emplace_back();
        else
            fields.back() += character;
    return fields;
}

std::vector<std::string> fenced_blocks(const std::string& manual) {
    std::vector<std::string> blocks;
    const std::string fence = "```\n";
    for (std::size_t begin = manual.find(fence); begin != std::string::npos;
         begin = manual.find(fence, begin)) {
        begin += fence.size();
        const std::size_t end = manual.find(fence, begin);
        blocks.push_back(manual.substr(begin, end - begin));
        begin = end + fence.size();
    }
    return blocks;
}

} // namespace

class TIMELINE_REPORT_TEST : public testing::Test {
  protected:
    std::deque<MEM_SERIES> series;
    std::vector<MEM_TIMELINE_COLUMN> columns;
    std::vector<std::string> labels;
    std::ostringstream plain, detailed;

    void add(const std::string& name, const std::vector<std::int64_t>& samples) {
        for (MEM_SERIES& added = series.emplace_back(); const std::int64_t sample : samples)
            added.append(sample);
        columns.push_back({name, &series.back()});
    }
    bool write(std::uint64_t num_rows) {
        LISTED_LABELS row_labels(labels);
        return mem_write_timeline(plain, detailed, columns, num_rows, row_labels);
    }
    // Adds what a detailed output shows, which ends in a footer; gives the number of its rows.
    std::uint64_t add_from_detailed(const std::string& text) {
        std::istringstream lines(text);
        std::string line;
        for (int head = 0; head < 3; ++head)
            std::getline(lines, line);
        std::vector<std::string> names = fields_of(line);
        std::vector<std::vector<std::int64_t>> samples(names.size());
        while (std::getline(lines, line) && !line.starts_with("Time spent")) {
            const std::vector<std::string> fields = fields_of(line);
            labels.push_back(fields.at(0));
            for (std::size_t field = 1; field < fields.size(); ++field)
                samples.at(field).push_back(std::stoll(fields[field]));
        }
        for (std::size_t field = 1; field < names.size(); ++field)
            add(names[field], samples[field]);
        return labels.size();
    }
};

TEST_F(TIMELINE_REPORT_TEST, RanksThePlainColumnsAndKeepsTheDetailedOrder) {
    add("big", {0, 900, -1});
    add("below", {-5, -5, -3});
    add("zero", {0, 0, 0});
    add("short", {7}); // ends before the rows do
    labels = {"parse", "Other"};
    EXPECT_TRUE(write(3));
    EXPECT_EQ(plain.str(), std::string(PLAIN_TITLE) +
                               "\tMisc\tbelow\tzero\tshort\tbig\n"
                               "parse\t0\t-5\t0\t7\t0\n"
                               "Other\t0\t-5\t0\t0\t900\n"
                               "end\t0\t-3\t0\t0\t-1\n" +
                               NO_TIME);
    EXPECT_EQ(detailed.str(), std::string(DETAILED_TITLE) +
                                  "\tbig\tbelow\tzero\tshort\n"
                                  "parse\t0\t-5\t0\t7\n"
                                  "Other\t900\t-5\t0\t0\n"
                                  "end\t-1\t-3\t0\t0\n" +
                                  NO_TIME);
}

TEST_F(TIMELINE_REPORT_TEST, WithoutSeriesAndWithoutSamples) {
    labels = {"a"};
    EXPECT_TRUE(write(1));
    EXPECT_EQ(plain.str(), std::string(PLAIN_TITLE) + "\tMisc\na\t0\n" + NO_TIME);
    EXPECT_EQ(detailed.str(), std::string(DETAILED_TITLE) + "\na\n" + NO_TIME);
    plain.str("");
    add("series", {});
    EXPECT_TRUE(write(0));
    EXPECT_EQ(plain.str(), std::string(PLAIN_TITLE) + "\tMisc\tseries\n" + NO_TIME);
}

class MISC_TEST : public TIMELINE_REPORT_TEST, public testing::WithParamInterface<int> {};

TEST_P(MISC_TEST, CoversAllButTheEighteenLargest) {
    const int count = GetParam();
    std::string names, figures;
    std::int64_t misc = 0;
    // Every second pair of neighbours has one maximum, and keeps its order.
    for (int index = 0; index < count; ++index) {
        const std::int64_t value = 100 + index / 2;
        add("m" + std::to_string(index), {1, value});
        if (index < count - 18) {
            misc += value;
        } else {
            names += "\tm" + std::to_string(index);
            figures += "\t" + std::to_string(value);
        }
    }
    EXPECT_TRUE(write(2));
    const std::string text = plain.str();
    EXPECT_NE(text.find("\n\tMisc" + names + "\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nend\t" + std::to_string(misc) + figures + "\n"), std::string::npos) << text;
    EXPECT_EQ(fields_of(detailed.str()).size(), static_cast<std::size_t>(3 * count) + 2 + 1);
}

INSTANTIATE_TEST_SUITE_P(NumbersOfSeries, MISC_TEST, testing::Values(17, 18, 19, 40, 200));

TEST_F(TIMELINE_REPORT_TEST, OneStreamForBothGetsThemCellByCell) {
    add("b", {2});
    add("a", {1});
    LISTED_LABELS row_labels({"row"});
    EXPECT_TRUE(mem_write_timeline(plain, plain, columns, 1, row_labels));
    EXPECT_EQ(plain.str(), std::string(PLAIN_TITLE) + DETAILED_TITLE +
                               "\tMisc\ta\tb\n\tb\ta\nrowrow\t0\t1\t2\t2\t1\n\n" + NO_TIME + NO_TIME);
}

TEST_F(TIMELINE_REPORT_TEST, FiguresStandInTheStreamsOwnFormat) {
    add("series", {1234567});
    plain.imbue(std::locale(std::locale::classic(), new THOUSANDS));
    detailed << std::hex << std::showbase;
    fake_set_clock({1000, 1235567});
    labels = {"x"};
    EXPECT_TRUE(write(1));
    // Clicks as a whole number, and both outputs tell the same time.
    const std::string time = "Time spent dumping:\t1234567 clicks.\t1234.57 seconds.\n";
    EXPECT_EQ(plain.str(), std::string(PLAIN_TITLE) + "\tMisc\tseries\nx\t0\t1,234,567\n" + time);
    EXPECT_EQ(detailed.str(), std::string(DETAILED_TITLE) + "\tseries\nx\t0x12d687\n" + time);
}

TEST_F(TIMELINE_REPORT_TEST, AFailedStreamStopsBoth) {
    for (std::ostringstream* failed : {&plain, &detailed}) {
        failed->setstate(std::ios_base::failbit);
        EXPECT_FALSE(write(1));
        failed->clear();
        EXPECT_EQ(plain.str() + detailed.str(), "");
    }
    detailed.setstate(std::ios_base::eofbit); // no failure
    fake_set_clock({-1, 7});
    EXPECT_TRUE(write(0));
    EXPECT_EQ(plain.str(), std::string(PLAIN_TITLE) + "\tMisc\nError timing this dump.\n");
}

// The detailed sample of a manual gives both its samples.
TEST_F(TIMELINE_REPORT_TEST, WritesTheSampleOfTheModuleManual) {
    const auto blocks = fenced_blocks(contents(VBX_DOCS_FOLDER "/report-module-timeline.md"));
    ASSERT_EQ(blocks.size(), 2U);
    EXPECT_TRUE(write(add_from_detailed(blocks[1])));
    EXPECT_EQ(plain.str(), blocks[0]);
    EXPECT_EQ(detailed.str(), blocks[1]);
}

TEST_F(TIMELINE_REPORT_TEST, WritesTheSampleOfTheBinTagManual) {
    const auto blocks = fenced_blocks(contents(VBX_DOCS_FOLDER "/report-bin-tag-timeline.md"));
    ASSERT_EQ(blocks.size(), 1U);
    EXPECT_TRUE(write(add_from_detailed(blocks[0])));
    EXPECT_EQ(detailed.str(), blocks[0]);
}
