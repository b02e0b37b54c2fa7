// The files that a process leaves behind: their exact text and which switch brings which; and timelines on
// streams of any kind, at the edges of their figures.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/host/memory_source.h"
#include "vbx/mem/mem_tbb_tracker/reports/leak_reports.h"
#include "vbx/mem/mem_tbb_tracker/reports/timeline_report.h"
#include "vbx/mem/tracker.h"

#include <cerrno>
#include <deque>
#include <sstream>

namespace {

// Answers once.
constexpr MEM_MEMORY_SOURCE SCRIPTED{[] { return 0; },
                                     [](OS_PROCESS_MEMORY& memory) {
                                         static int queries = 0;
                                         memory = {0xFFFFFFFF, 2000, 2000, 3000, 3000, 0};
                                         return queries++ == 0 ? 0 : EIO;
                                     },
                                     nullptr, nullptr};

} // namespace

class REPORT_FILES_TEST : public TRACKER_TEST {
  protected:
    const EMPTY_FOLDER m_folder;
    const std::string FAST_LEAKS = "mem_tbb_fast_leak_warning.log";
    const std::string AUXILIARY = "mem_tbb_auxiliary_timeline.tvx.log";

    static void start_with(const std::vector<std::string>& variables, const char* sample_period = nullptr) {
        for (const std::string& variable : variables)
            set_variable(("TARVANE_MEM_" + variable).c_str(), "1");
        start(mem_get_tracking_granularity_from_env(), sample_period);
    }
};

TEST_F(REPORT_FILES_TEST, TellOfOneProcessInExactWordsThatTheManualKnows) {
    mem_memory_source = &SCRIPTED;
    fake_define_symbol(0x3000, {"query", "/src/query.cpp", 40, "ENGINE"});
    fake_define_symbol(0x3100, {"peel", "/src/peel.cpp", 5, "Äpfel"});
    start_with({"PROFILE_ALL"}, "1000");
    allocate(0xA000, 1024, {FILTERED, PARSE}, 1000); // a sample
    mem_open_profile_bin("lex", "loading");
    allocate(0xB000, 123456, {QUERY});
    release(0xC000, 1792);    // unknown, and a sample, because it records a peak
    allocate(0xD000, 16, {}); // can't be attributed
    allocate(0xD010, 0, {EXPAND});
    mem_set_timeline_label("ending");
    release(0xB000, 123456); // no peak: nothing has grown
    allocate(0xB000, 2000, {0x3000});
    allocate(0xB800, 48, {0x3100});
    // A blocked thread's and the tracker's own events move the auxiliary figures alone.
    EXPECT_EQ(mem_block_thread_tracking(), 0);
    EXPECT_EQ(mem_block_thread_tracking(), 1);
    allocate(0xE000, 64, {PARSE}, 50);
    release(0xF000, 64);
    EXPECT_EQ(mem_unblock_thread_tracking(), 1);
    EXPECT_EQ(mem_unblock_thread_tracking(), 0);
    {
        const MEM_IN_TRACKER_SCOPE own_event;
        release(0xF100, 8);
        release(0xF200, 8);
    }
    mem_tbb_tracker_teardown();
    EXPECT_EQ(mem_manager.current_total_memory(), 1296U); // is told as before
    EXPECT_EQ(MEM_MANAGER::peak_total_memory(), 124480U);
    const auto block = std::make_unique<char[]>(100);
    EXPECT_GE(MEM_MANAGER::msize(block.get()), 100U);
    EXPECT_EQ(MEM_MANAGER::get_default_segment()->get_id(), 1);
    EXPECT_TRUE(mem_is_allocated(block.get()));

    std::string text, manual;
    for (const std::string& name : m_folder.files(""))
        text += "---- " + name.substr(8, name.find('.') - 8) + "\n" + test_read_file(name);
    EXPECT_EQ(text, test_read_file(VBX_SOURCES "/tests/unit/tracker/reports.golden"));
    for (const auto& page : std::filesystem::directory_iterator(VBX_SOURCES "/docs"))
        manual += test_read_file(page.path());
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        const bool is_head = line.starts_with("MEM: ") || line.find("urrent") < line.size();
        EXPECT_TRUE(!is_head || manual.find("\n" + line + "\n") != std::string::npos) << line;
    }
}

TEST_F(REPORT_FILES_TEST, CollectAFastLeakBlockAProcess) {
    start(MEM_GRANULARITY_CHECK_LEAKS_FAST);
    allocate(0xA000, 1234, {});
    mem_write_fast_leak_report();
    mem_set_gen_get_module_filename_callback([] { return std::string("indexer"); });
    allocate(0xB000, 123456789012345, {});
    release(0xA000, 1234);
    mem_write_fast_leak_report();
    const std::string rule = "\n===============================\n";
    EXPECT_EQ(test_read_file(FAST_LEAKS),
              "For more detail, use INI mem_check_leaks=on\n\n memory leak summary" + rule +
                  "Leaked bytes:              1234\nPeak bytes on heap:        1234" + rule +
                  "\nindexer memory leak summary" + rule +
                  "Leaked bytes:      123456789012345\nPeak bytes on heap:123456789013579" + rule + "\n");
    set_variable("MEM_LEAK_TRACKING_IN_ZV_MODE", "1"); // either report goes to the sibling tool's file
    mem_write_fast_leak_report();
    const std::string sibling = "tarvane_zv_leak_warning.txt";
    EXPECT_NE(test_read_file(sibling).find("indexer memory leak summary"), std::string::npos);
    mem_write_full_leak_report();
    EXPECT_EQ(test_read_file(sibling), "MEM: TBB Leak Checking Summary.\n\n\nTotal leaked bytes: 0\n");
    EXPECT_EQ(m_folder.files(""), (std::vector{FAST_LEAKS, sibling}));
}

TEST_F(REPORT_FILES_TEST, AreWrittenOnceForWhatTheStartTurnedOn) {
    mem_shutdown_tbb_tracking(); // before the start: nothing
    start_with({"CHECK_LEAKS_FAST", "PROFILE_PER_BIN", "PROFILE_AUXILIARY_TIMELINE"});
    // A feature that is turned on later brings no report, and a sample no file.
    mem_enable_tracking(MEM_GRANULARITY_PER_LIBRARY | MEM_GRANULARITY_PER_FILELINE |
                        MEM_GRANULARITY_PER_BIN_DETAILED);
    mem_user_snapshot_tracking_data();
    mem_shutdown_tbb_tracking();
    EXPECT_EQ(m_folder.files(""), (std::vector{AUXILIARY, FAST_LEAKS}));
    EXPECT_FALSE(fake_hook_is_installed());
    EXPECT_FALSE(mem_get_tbb_memory_tracking_enabled());
    // The flags are spent: only what follows the mask is written again.
    std::filesystem::remove(AUXILIARY);
    std::filesystem::remove(FAST_LEAKS);
    mem_shutdown_tbb_tracking();
    EXPECT_EQ(m_folder.files(""), std::vector{FAST_LEAKS});
}

// ---- text

class TIMELINE_TEXT_TEST : public testing::Test {
  protected:
    const std::string TITLE = "MEM: TBB Module Tracking Memory Timeline.\n\n\tMisc";
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
    plain << std::showpos;
    fake_set_clock({1000, 1235567});
    EXPECT_TRUE(write(3));
    // Clicks as a whole number, and both outputs tell the same time.
    const std::string time = "Time spent dumping:\t1234567 clicks.\t1234.57 seconds.\n";
    EXPECT_EQ(plain.str(), TITLE +
                               "\tbelow\tzero\tshort\tbig\n0\t+0\t-5\t+0\t+7\t+0\n"
                               "1\t+0\t-5\t+0\t+0\t+1234567\n2\t+0\t-3\t+0\t+0\t-1\n" +
                               time);
    EXPECT_TRUE(detailed.str().ends_with("\n\tbig\tbelow\tzero\tshort\n0\t0\t-5\t0\t7\n"
                                         "1\t1234567\t-5\t0\t0\n2\t-1\t-3\t0\t0\n" +
                                         time));
}

TEST_F(TIMELINE_TEXT_TEST, MiscIsTheSumOfAllButTheEighteenLargest) {
    std::string names, figures;
    for (int index = 0; index < 20; ++index) {
        const int value = 100 + index / 2; // pairs of neighbours are even, and keep their order
        add("m" + std::to_string(index), {value});
        names += index < 2 ? "" : "\tm" + std::to_string(index);
        figures += index < 2 ? "" : "\t" + std::to_string(value);
    }
    EXPECT_TRUE(write(1));
    EXPECT_TRUE(plain.str().starts_with(TITLE + names + "\n0\t200" + figures + "\n")) << plain.str();
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
    EXPECT_EQ(plain.str(), TITLE + "\nError timing this dump.\n");
}
