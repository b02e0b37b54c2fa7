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
#include <fstream>

namespace {

constexpr std::uint64_t MIB = 1024 * 1024;

void expect_near(std::uint64_t seen, std::uint64_t expected, std::uint64_t band) {
    EXPECT_LE(seen > expected ? seen - expected : expected - seen, band) << seen << " and " << expected;
}

OS_PROCESS_MEMORY process;
OS_SYSTEM_MEMORY machine;
int open_failure = 0, read_failure = 0, opens = 0;

template <class FIGURES>
int answer(FIGURES& asked, const FIGURES& scripted) {
    if (read_failure == 0)
        asked = scripted;
    return read_failure;
}
constexpr MEM_MEMORY_SOURCE SCRIPTED{[] { return ++opens, open_failure; },
                                     [](OS_PROCESS_MEMORY& memory) { return answer(memory, process); },
                                     [](std::uint64_t& bytes) { return answer(bytes, process.virtual_size); },
                                     [](OS_SYSTEM_MEMORY& memory) { return answer(memory, machine); }};

// Level 0 to n: what the system would say of a process and machine that grow.
void set_level(std::uint64_t level) {
    process = {static_cast<std::uint32_t>(level), level, level, level, level, level};
    machine = {1000, 1000 - level, 5000, 5000 - level};
}

const struct {
    std::uint64_t (*current)();
    std::uint64_t (*peak)();
    bool complains; // with a message when the system doesn't answer, a peak with two
} FIGURES[] = {
    {mem_info_get_process_current_working_set_size, mem_info_get_process_peak_working_set_size, true},
    {mem_info_get_process_current_page_file_used, mem_info_get_process_peak_page_file_used, true},
    {mem_info_get_process_current_virtual_used, mem_info_get_process_peak_virtual_used, false},
    {mem_info_get_system_current_physical_in_use, mem_info_get_system_peak_physical_in_use, false},
    {mem_info_get_system_current_page_file_in_use, mem_info_get_system_peak_page_file_in_use, false},
};

} // namespace

class SCRIPTED_FIGURES_TEST : public TRACKER_TEST {
  protected:
    SCRIPTED_FIGURES_TEST() { mem_memory_source = &SCRIPTED; }
};

TEST_F(SCRIPTED_FIGURES_TEST, PeaksNeverFallAndFailuresReadZero) {
    for (const auto& [current, peak, complains] : FIGURES) {
        const std::string text = complains ? "MEM: Input/output error\n" : "";
        read_failure = 0;
        set_level(300);
        EXPECT_EQ(current(), 300U); // seen by this call alone, and kept
        set_level(200);
        EXPECT_EQ(peak(), 300U);
        EXPECT_EQ(current(), 200U);
        set_level(400);
        EXPECT_EQ(peak(), 400U);
        read_failure = EIO;
        EXPECT_EQ(current(), 0U);
        EXPECT_EQ(take_messages(), text);
        EXPECT_EQ(peak(), 400U);
        EXPECT_EQ(take_messages(), text + text);
    }
    // The system's own peaks can be higher than all that was ever asked for, and a part above its total.
    read_failure = 0;
    process.peak_working_set = 900;
    process.peak_committed = 800;
    process.page_faults = 0xFFFFFFFF;
    machine = {1000, 1001, 5000, 5001};
    EXPECT_EQ(mem_info_get_process_peak_working_set_size(), 900U);
    EXPECT_EQ(mem_info_get_process_page_fault_count(), 0xFFFFFFFFU);
    EXPECT_EQ(mem_info_get_system_current_physical_in_use(), 0U);
    EXPECT_EQ(mem_info_get_system_current_page_file_in_use(), 0U);
    set_variable("mem_report_peak_virtual_memory_from_os", "on");
    EXPECT_EQ(mem_info_get_process_peak_virtual_used(), 800U);
    EXPECT_EQ(take_messages(),
              "MEM: Overriding old peak memory calculation (400 bytes) with OS peak pagefile "
              "usage (800 bytes)\n");
}

TEST_F(SCRIPTED_FIGURES_TEST, FailedOpeningIsToldOnceAndNotRepeated) {
    const std::string text = "MEM: No such file or directory\n";
    open_failure = ENOENT;
    set_level(300);
    EXPECT_EQ(mem_info_get_process_current_working_set_size(), 0U);
    EXPECT_EQ(take_messages(), "MEM: Loading psapi.dll failed with:\n" + text + text);
    open_failure = 0;
    mem_info_close(); // doesn't make up for the failure
    EXPECT_EQ(mem_info_get_process_page_fault_count(), 0U);
    EXPECT_EQ(take_messages(), text);
    EXPECT_EQ(opens, 1);
    mem_info_init(); // the host tries again by itself
    EXPECT_EQ(mem_info_get_process_current_working_set_size(), 300U);
    EXPECT_EQ(opens, 2);
}

TEST(MEMORY_FIGURES_TEST, FollowWhatTheProcessTouches) {
    constexpr std::uint64_t SIZE = 64 * MIB;
    OS_PROCESS_MEMORY before, touched, unmapped;
    ASSERT_EQ(os_read_process_memory(before), 0);
    void* const block = mmap(nullptr, SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(block, MAP_FAILED);
    madvise(block, SIZE, MADV_NOHUGEPAGE);
    // The kernel touches it: a sanitizer would touch its own record of each byte, too.
    const int zeros = open("/dev/zero", O_RDONLY);
    EXPECT_EQ(syscall(SYS_read, zeros, block, SIZE), static_cast<long>(SIZE));
    close(zeros);
    os_read_process_memory(touched);
    munmap(block, SIZE);
    os_read_process_memory(unmapped);
    expect_near(touched.committed, before.committed + SIZE, MIB);
    expect_near(touched.virtual_size, before.virtual_size + SIZE, MIB);
    expect_near(touched.working_set, before.working_set + SIZE, 4 * MIB);
    EXPECT_GE(touched.page_faults - before.page_faults, SIZE / 4096);
    EXPECT_GE(unmapped.peak_working_set + MIB, touched.working_set);
    struct sysinfo info;
    OS_SYSTEM_MEMORY memory;
    ASSERT_EQ(sysinfo(&info), 0);
    ASSERT_EQ(os_read_system_memory(memory), 0);
    const std::uint64_t ram = info.totalram * info.mem_unit;
    expect_near(memory.physical_total, ram, ram / 16);
    expect_near(memory.page_file_total, ram + info.totalswap * info.mem_unit, ram / 16);
}

// A query can come inside any allocation of any program: what it may not disturb there.
TEST(MEMORY_FIGURES_TEST, LeaveTheCallingThreadAsItWas) {
    errno = E2BIG;
    EXPECT_GT(mem_info_get_process_current_working_set_size(), 0U);
    EXPECT_EQ(errno, E2BIG);
    bool came_through = false;
    run_on_threads(1, [&came_through](std::uint64_t) {
        pthread_cancel(pthread_self()); // strikes in no file operation of ours
        OS_PROCESS_MEMORY memory;
        came_through = os_read_process_memory(memory) == 0;
    });
    EXPECT_TRUE(came_through);
    // Out of descriptors for a while, from the very first query on; then with few, which none may be left of.
    mem_info_close();
    rlimit limit;
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max}, few{32, limit.rlim_max};
    testing::internal::CaptureStdout();
    setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_EQ(mem_info_get_process_current_working_set_size(), 0U);
    setrlimit(RLIMIT_NOFILE, &few);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "MEM: Too many open files\n");
    for (int query = 0; query < 64; ++query)
        ASSERT_GT(mem_info_get_process_current_working_set_size(), 0U);
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

TEST(KERNEL_FILE_TEST, CutsLinesThatAreLongerThanItsBuffer) {
    const EMPTY_FOLDER folder;
    const std::string groups = "Groups: " + std::string(5000, '1');
    std::ofstream("file") << "VmRSS:\t  12 kB\n\n" << groups << "\nVmStk: 99999999999999999999 kB\nVmStk:";
    std::vector<std::string> lines;
    OS_KERNEL_FILE file("file");
    for (std::string_view line; file.next_line(line);)
        lines.emplace_back(line);
    EXPECT_EQ(lines, (std::vector<std::string>{"VmRSS:\t  12 kB", "", groups.substr(0, 1024),
                                               "VmStk: 99999999999999999999 kB", "VmStk:"}));
    std::uint64_t bytes = 7;
    for (const std::string& line : lines)
        EXPECT_FALSE(os_parse_kilobytes(line, "VmStk:", bytes)) << line; // another name, no number, too large
    EXPECT_EQ(bytes, 7U);
    EXPECT_TRUE(os_parse_kilobytes(lines[0], "VmRSS:", bytes));
    EXPECT_EQ(bytes, 12U * 1024);
}
