// The auxiliary timeline and its log, byte for byte, over figures that tests script.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/host/memory_source.h"
#include "vbx/mem/mem_tbb_tracker/state/counters.h"
#include "vbx/mem/mem_tbb_tracker/state/executable_tag.h"
#include "vbx/mem/mem_tbb_tracker/timelines/auxiliary_timeline.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <map>
#include <sstream>
#include <thread>

namespace {

OS_PROCESS_MEMORY process;
int failure = 0;

constexpr MEM_MEMORY_SOURCE SCRIPTED{[] { return 0; },
                                     [](OS_PROCESS_MEMORY& memory) {
                                         memory = process;
                                         return failure;
                                     },
                                     nullptr};

constexpr const char* LOG = "mem_tbb_auxiliary_timeline.tvx.log";
const std::string HEAD =
    "MEM: TBB Auxiliary Timeline\n\n"
    "page_faults\tcommit_charge\tresident\tprofiler_num_allocs\tprofiler_num_deallocs\t"
    "profiler_num_outstanding\tprofiler_requested_total\tprofiler_requested_outstanding\t"
    "profiler_allocated_total\tprofiler_allocated_outstanding\n";

// The sample log of the manual: its only fenced block.
std::string sample_of_manual() {
    const std::string manual = contents(VBX_DOCS_FOLDER "/report-auxiliary-timeline.md");
    const std::size_t begin = manual.find("```\n") + 4;
    return manual.substr(begin, manual.find("```", begin) - begin);
}

// The figures of a row under the names of the columns.
std::map<std::string, std::uint64_t> named_figures(const std::string& header, const std::string& row) {
    std::istringstream names(header);
    std::istringstream figures(row);
    std::map<std::string, std::uint64_t> result;
    for (std::string name; names >> name;)
        figures >> result[name];
    return result;
}

// Scripts the figures that make a row of the log.
void script(std::map<std::string, std::uint64_t> figures) {
    process.page_faults = static_cast<std::uint32_t>(figures["page_faults"]);
    process.committed = figures["commit_charge"];
    process.working_set = figures["resident"];
    mem_fallback_counters.allocations = figures["profiler_num_allocs"];
    mem_fallback_counters.frees = figures["profiler_num_deallocs"];
    mem_fallback_counters.requested_total = figures["profiler_requested_total"];
    mem_fallback_counters.requested_outstanding = figures["profiler_requested_outstanding"];
    mem_fallback_counters.allocated_total = figures["profiler_allocated_total"];
    mem_fallback_counters.allocated_outstanding = figures["profiler_allocated_outstanding"];
}

} // namespace

class AUXILIARY_TIMELINE_TEST : public testing::Test {
  protected:
    AUXILIARY_TIMELINE_TEST() {
        mem_create_executable_tag();
        mem_memory_source = &SCRIPTED;
        script({{"page_faults", 0xFFFFFFFF}, {"resident", 2000}, {"commit_charge", 3000}});
    }

    std::string dumped() {
        timeline.dump();
        return contents(LOG);
    }

    MEM_AUXILIARY_TIMELINE timeline;

  private:
    const EMPTY_FOLDER m_folder;
};

TEST_F(AUXILIARY_TIMELINE_TEST, LogsTheSampleOfTheManual) {
    const std::string manual = sample_of_manual();
    ASSERT_TRUE(manual.starts_with(HEAD));
    std::istringstream rows(manual.substr(HEAD.size()));
    for (std::string row; std::getline(rows, row) && !row.starts_with("Time");) {
        script(named_figures(HEAD.substr(HEAD.find("page_faults")), row));
        timeline.take_sample();
    }
    EXPECT_EQ(dumped(), manual);
}

TEST_F(AUXILIARY_TIMELINE_TEST, RowsWithoutFiguresAndBelowZero) {
    fake_set_clock({1000, 1235567});
    EXPECT_EQ(dumped(), HEAD + "Time spent dumping:\t1234567 clicks.\t1234.57 seconds.\n");
    timeline.take_sample();
    failure = EIO;
    constexpr std::uint64_t ZERO = 0;
    script({{"profiler_num_deallocs", 1},
            {"profiler_requested_outstanding", ZERO - 16},
            {"profiler_allocated_outstanding", ZERO - 32}});
    timeline.take_sample();
    fake_set_clock({-1, 5});
    const std::string none = "18446744073709551615";
    const std::string rows = "4294967295\t3000\t2000\t0\t0\t0\t0\t0\t0\t0\n" + none + "\t" + none + "\t" +
                             none + "\t0\t1\t" + none +
                             "\t0\t18446744073709551600\t0\t18446744073709551584\n";
    EXPECT_EQ(dumped(), HEAD + rows + "Error timing this dump.\n");
    EXPECT_EQ(dumped(), HEAD + rows + "Time spent dumping:\t0 clicks.\t0 seconds.\n"); // the rows stay
}

TEST_F(AUXILIARY_TIMELINE_TEST, LogThatCannotBeOpenedIsMissing) {
    std::filesystem::create_directory(LOG);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    timeline.dump();
    EXPECT_EQ(testing::internal::GetCapturedStdout() + testing::internal::GetCapturedStderr(), "");
    std::filesystem::remove(LOG);
    timeline.take_sample(); // the lock is free again
    mem_set_tbb_exe_string("abc");
    timeline.dump();
    EXPECT_TRUE(contents("mem_tbb_auxiliary_timeline.abc.log").starts_with(HEAD + "4294967295\t"));
}

TEST_F(AUXILIARY_TIMELINE_TEST, SamplesOfAllThreadsArriveDuringADump) {
    constexpr int THREADS = 4;
    constexpr int SAMPLES = 200;
    std::vector<std::thread> threads;
    for (int index = 0; index < THREADS; ++index)
        threads.emplace_back([this] {
            for (int sample = 0; sample < SAMPLES; ++sample)
                timeline.take_sample();
        });
    timeline.dump();
    for (std::thread& thread : threads)
        thread.join();
    const std::string log = dumped();
    EXPECT_EQ(std::ranges::count(log, '\n'), 3 + THREADS * SAMPLES + 1);
}
