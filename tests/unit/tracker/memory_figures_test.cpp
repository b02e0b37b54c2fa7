// What the operating system says of process and machine: the kernel's own figures, compared with readings of
// another kind, and the rules of peaks and messages over figures that tests script.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/host/memory_source.h"
#include "vbx/platform/os/kernel_file.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

namespace {

constexpr std::uint64_t MIB = 1024 * 1024;

// The second and sixth number of statm, in bytes: resident, and private writable.
std::pair<std::uint64_t, std::uint64_t> read_statm() {
    std::uint64_t pages[6];
    std::ifstream stream("/proc/self/statm");
    for (std::uint64_t& number : pages)
        stream >> number;
    return {pages[1] * 4096, pages[5] * 4096};
}

void expect_near(std::uint64_t seen, std::uint64_t expected, std::uint64_t band) {
    EXPECT_LE(seen > expected ? seen - expected : expected - seen, band) << seen << " and " << expected;
}

// ---- a source that tests script

OS_PROCESS_MEMORY process;
OS_SYSTEM_MEMORY machine;
int open_failure = 0;
int read_failure = 0;
int opens = 0;

int open_scripted() {
    ++opens;
    return open_failure;
}
template <class FIGURES>
int read_scripted(FIGURES& memory, const FIGURES& figures) {
    if (read_failure == 0)
        memory = figures;
    return read_failure;
}

constexpr MEM_MEMORY_SOURCE SCRIPTED{open_scripted,
                                     [](OS_PROCESS_MEMORY& memory) { return read_scripted(memory, process); },
                                     [](OS_SYSTEM_MEMORY& memory) { return read_scripted(memory, machine); }};

std::string messages;

// Level 0 to n: what the system would say of a process and machine that grow.
void set_level(std::uint64_t level) {
    process = {static_cast<std::uint32_t>(level), level, level, level, level, level};
    machine = {1000, 1000 - level, 5000, 5000 - level};
}

class SCRIPTED_FIGURES_TEST : public testing::Test {
  protected:
    SCRIPTED_FIGURES_TEST() {
        mem_memory_source = &SCRIPTED;
        mem_set_msg_local_vdebug_callback([](const char* tag, const char* format, std::va_list args) {
            char text[200];
            std::vsnprintf(text, sizeof text, format, args);
            messages += std::string(tag) + ": " + text + "\n";
            return true;
        });
    }
    static std::string take_messages() { return std::exchange(messages, ""); }
};

struct FIGURE {
    const char* name;
    std::uint64_t (*current)();
    std::uint64_t (*peak)();
    const char* text; // sent when the system doesn't answer, twice by a peak
};

const FIGURE FIGURES[] = {
    {"working set", mem_info_get_process_current_working_set_size, mem_info_get_process_peak_working_set_size,
     "MEM: Input/output error\n"},
    {"page file", mem_info_get_process_current_page_file_used, mem_info_get_process_peak_page_file_used,
     "MEM: Input/output error\n"},
    {"virtual", mem_info_get_process_current_virtual_used, mem_info_get_process_peak_virtual_used, ""},
    {"physical", mem_info_get_system_current_physical_in_use, mem_info_get_system_peak_physical_in_use, ""},
    {"system page file", mem_info_get_system_current_page_file_in_use,
     mem_info_get_system_peak_page_file_in_use, ""},
};

} // namespace

TEST_F(SCRIPTED_FIGURES_TEST, PeaksNeverFallAndFailuresReadZero) {
    for (const FIGURE& figure : FIGURES) {
        SCOPED_TRACE(figure.name);
        read_failure = 0;
        set_level(300);
        EXPECT_EQ(figure.current(), 300U); // seen by this call alone, and kept
        set_level(200);
        EXPECT_EQ(figure.peak(), 300U);
        EXPECT_EQ(figure.current(), 200U);
        set_level(400);
        EXPECT_EQ(figure.peak(), 400U);
        set_level(100);
        EXPECT_EQ(figure.peak(), 400U);
        mem_info_close();
        EXPECT_EQ(figure.peak(), 400U);
        EXPECT_EQ(take_messages(), "");
        read_failure = EIO;
        EXPECT_EQ(figure.current(), 0U);
        EXPECT_EQ(take_messages(), figure.text);
        EXPECT_EQ(figure.peak(), 400U);
        EXPECT_EQ(take_messages(), std::string(figure.text) + figure.text);
    }
    EXPECT_EQ(mem_info_get_process_page_fault_count(), 0U);
    EXPECT_EQ(take_messages(), "MEM: Input/output error\n");
    // The system's own peaks can be higher than all that was ever asked for.
    read_failure = 0;
    process.peak_working_set = 900;
    process.peak_committed = 800;
    process.page_faults = 0xFFFFFFFF;
    EXPECT_EQ(mem_info_get_process_peak_working_set_size(), 900U);
    EXPECT_EQ(mem_info_get_process_peak_page_file_used(), 800U);
    EXPECT_EQ(mem_info_get_process_page_fault_count(), 0xFFFFFFFFU);
    process = {};
    EXPECT_EQ(mem_info_get_process_peak_working_set_size(), 900U);
    machine = {1000, 1001, 5000, 5001};
    EXPECT_EQ(mem_info_get_system_current_physical_in_use(), 0U);
    EXPECT_EQ(mem_info_get_system_current_page_file_in_use(), 0U);
}

TEST_F(SCRIPTED_FIGURES_TEST, FailedOpeningIsToldOnceAndNotRepeated) {
    const std::string text = "MEM: No such file or directory\n";
    open_failure = ENOENT;
    set_level(300);
    EXPECT_EQ(mem_info_get_process_current_working_set_size(), 0U);
    EXPECT_EQ(take_messages(), "MEM: Loading psapi.dll failed with:\n" + text + text);
    open_failure = 0;
    EXPECT_EQ(mem_info_get_process_peak_page_file_used(), 0U);
    EXPECT_EQ(take_messages(), text + text);
    mem_info_close(); // doesn't make up for the failure
    EXPECT_EQ(mem_info_get_process_page_fault_count(), 0U);
    EXPECT_EQ(take_messages(), text);
    EXPECT_EQ(opens, 1);
    EXPECT_EQ(mem_info_get_process_current_virtual_used(), 300U); // needs no opening
    mem_info_init();                                              // the host tries again by itself
    mem_info_init();
    EXPECT_EQ(mem_info_get_process_current_working_set_size(), 300U);
    EXPECT_EQ(opens, 2);
    EXPECT_EQ(take_messages(), "");
}

TEST_F(SCRIPTED_FIGURES_TEST, KeyReplacesThePeakOfAddressSpace) {
    set_level(300);
    process.peak_committed = 450;
    EXPECT_EQ(mem_info_get_process_peak_virtual_used(), 300U);
    EXPECT_EQ(take_messages(), "");
    set_variable("mem_report_peak_virtual_memory_from_os", "on");
    const std::string text = "MEM: Overriding old peak memory calculation (300 bytes) with OS peak pagefile "
                             "usage (450 bytes)\n";
    EXPECT_EQ(mem_info_get_process_peak_virtual_used(), 450U);
    EXPECT_EQ(mem_info_get_process_peak_virtual_used(), 450U);
    EXPECT_EQ(take_messages(), text + text);
    set_variable("mem_report_peak_virtual_memory_from_os", "off");
    EXPECT_EQ(mem_info_get_process_peak_virtual_used(), 300U);
}

TEST(MEMORY_FIGURES_TEST, FollowWhatTheProcessTouches) {
    constexpr std::uint64_t SIZE = 64 * MIB;
    const std::uint64_t faults = mem_info_get_process_page_fault_count();
    const std::uint64_t page_file = mem_info_get_process_current_page_file_used();
    const std::uint64_t virtual_used = mem_info_get_process_current_virtual_used();
    void* const block = mmap(nullptr, SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(block, MAP_FAILED);
    madvise(block, SIZE, MADV_NOHUGEPAGE);
    // Committed and mapped, and no page of it in memory.
    expect_near(mem_info_get_process_current_page_file_used(), page_file + SIZE, MIB);
    expect_near(mem_info_get_process_current_virtual_used(), virtual_used + SIZE, MIB);
    std::memset(block, 1, SIZE);
    const auto [resident, committed] = read_statm();
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    const std::uint64_t working_set = mem_info_get_process_current_working_set_size();
    EXPECT_GT(working_set, SIZE);
    expect_near(working_set, resident, 4 * MIB);
    expect_near(mem_info_get_process_current_page_file_used(), committed, MIB);
    expect_near(mem_info_get_process_page_fault_count(),
                static_cast<std::uint64_t>(usage.ru_minflt + usage.ru_majflt), 1000);
    EXPECT_GE(mem_info_get_process_page_fault_count() - faults, SIZE / 4096);
    munmap(block, SIZE);
    EXPECT_LT(mem_info_get_process_current_working_set_size(), working_set - SIZE / 2);
    EXPECT_GE(mem_info_get_process_peak_working_set_size(), working_set);
    EXPECT_GE(mem_info_get_process_peak_virtual_used(), virtual_used + SIZE);
}

TEST(MEMORY_FIGURES_TEST, OfTheMachineAgreeWithItsOtherCounts) {
    struct sysinfo info;
    ASSERT_EQ(sysinfo(&info), 0);
    OS_SYSTEM_MEMORY memory;
    ASSERT_EQ(os_read_system_memory(memory), 0);
    const std::uint64_t ram = info.totalram * info.mem_unit;
    expect_near(memory.physical_total, ram, ram / 16);
    expect_near(memory.page_file_total, ram + info.totalswap * info.mem_unit, ram / 16);
    EXPECT_GE(memory.page_file_available, memory.physical_available);
    EXPECT_LT(mem_info_get_system_peak_physical_in_use(), memory.physical_total);
    EXPECT_GE(mem_info_get_system_current_page_file_in_use(), MIB);
}

// A query can come inside any allocation of any program: what it may not disturb there.
TEST(MEMORY_FIGURES_TEST, LeaveTheCallingThreadAsItWas) {
    const auto open_descriptors = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto before = open_descriptors();
    errno = E2BIG;
    EXPECT_GT(mem_info_get_process_current_working_set_size(), 0U);
    EXPECT_EQ(errno, E2BIG);
    EXPECT_EQ(open_descriptors(), before);

    // A pending cancellation strikes in no file operation of ours.
    bool came_through = false;
    std::thread([&came_through] {
        pthread_cancel(pthread_self());
        OS_PROCESS_MEMORY memory;
        came_through = os_read_process_memory(memory) == 0;
    }).join();
    EXPECT_TRUE(came_through);

    // Out of descriptors for a while, from the very first query on.
    mem_info_close();
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    testing::internal::CaptureStdout();
    setrlimit(RLIMIT_NOFILE, &none);
    const std::uint64_t failed = mem_info_get_process_current_working_set_size();
    setrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "MEM: Too many open files\n");
    EXPECT_EQ(failed, 0U);
    EXPECT_GT(mem_info_get_process_current_working_set_size(), 0U);
}

TEST(MEMORY_FIGURES_TEST, OutliveTheFirstThreadOfTheProcess) {
    EXPECT_EXIT(
        {
            std::thread([] {
                for (std::string state; state != "Z"; usleep(1000))
                    std::ifstream("/proc/self/stat") >> state >> state >> state;
                OS_PROCESS_MEMORY memory;
                _exit(os_read_process_memory(memory) == 0 && memory.working_set > 0 ? 0 : 1);
            }).detach();
            syscall(SYS_exit, 0);
        },
        testing::ExitedWithCode(0), "");
}

TEST(MEMORY_FIGURES_TEST, CanBeAskedForByAllThreadsAtOnce) {
    std::vector<std::thread> threads;
    for (int index = 0; index < 4; ++index)
        threads.emplace_back([] {
            for (int round = 0; round < 50; ++round) {
                mem_info_init();
                for (const FIGURE& figure : FIGURES) {
                    const std::uint64_t current = figure.current();
                    EXPECT_GT(current, 0U) << figure.name;
                    EXPECT_GE(figure.peak(), current) << figure.name;
                }
                mem_info_close();
            }
        });
    for (std::thread& thread : threads)
        thread.join();
}

TEST(KERNEL_FILE_TEST, CutsLinesThatAreLongerThanItsBuffer) {
    const std::string groups = "Groups: " + std::string(5000, '1');
    const std::string path = testing::TempDir() + "kernel_file_" + std::to_string(getpid());
    std::ofstream(path) << "VmRSS:\t  12 kB\n\n" << groups << "\nVmStk: 99999999999999999999 kB\nVmStk:";
    std::vector<std::string> lines;
    OS_KERNEL_FILE file(path.c_str());
    std::filesystem::remove(path);
    for (std::string_view line; file.next_line(line);)
        lines.emplace_back(line);
    EXPECT_EQ(file.error(), 0);
    EXPECT_EQ(lines, (std::vector<std::string>{"VmRSS:\t  12 kB", "", groups.substr(0, 1024),
                                               "VmStk: 99999999999999999999 kB", "VmStk:"}));
    std::uint64_t bytes = 7;
    for (const std::string& line : lines)
        EXPECT_FALSE(os_parse_kilobytes(line, "VmStk:", bytes)) << line; // another name, no number, too large
    EXPECT_EQ(bytes, 7U);
    EXPECT_TRUE(os_parse_kilobytes(lines[0], "VmRSS:", bytes));
    EXPECT_EQ(bytes, 12U * 1024);
}
