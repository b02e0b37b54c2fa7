// The heap of a forked child works, whatever other threads were doing at the fork.
#include "tests/unit/tbbamalloc/busy_threads.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

namespace {

std::atomic<int> events = 0;

void count_event(void*, std::uint64_t, std::uint64_t, bool) {
    events.fetch_add(1);
}

// Forks; the child runs `body` and has a limited time for it. Gives the wait status.
template <class BODY>
int status_of_child(BODY body) {
    const pid_t child = fork();
    if (child == 0) {
        alarm(10);
        _exit(body() ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return status;
}

bool use_heap() {
    for (std::size_t size = 16; size < 3'000'000; size *= 3) {
        void* const block = std::malloc(size);
        if (block == nullptr)
            return false;
        std::memset(block, 1, 16);
        std::free(std::realloc(block, 2 * size));
    }
    std::thread([] { std::free(std::malloc(1'000'000)); }).join();
    return true;
}

class Fork : public testing::TestWithParam<tbbk_mem_tracker_callback> {};

TEST_P(Fork, ChildrenOfBusyProcessNeverHang) {
    tbbk_set_mem_tracker_callback(GetParam());
    {
        BUSY_THREADS_AND_ENDS busy(2);
        std::vector<std::thread> forking;
        for (int i = 0; i != 3; ++i)
            forking.emplace_back([] {
                for (int round = 0; round != 60; ++round)
                    EXPECT_EQ(status_of_child(use_heap), 0);
            });
        for (std::thread& thread : forking)
            thread.join();
    }
    tbbk_set_mem_tracker_callback(nullptr);
}

INSTANTIATE_TEST_SUITE_P(Hook, Fork, testing::Values(nullptr, count_event));

std::atomic<bool> is_callback_stuck = false;

void get_stuck(void*, std::uint64_t requested, std::uint64_t, bool) {
    if (requested != 12'345)
        return;
    is_callback_stuck = true;
    while (is_callback_stuck)
        usleep(1000);
}

// The fork goes on without the thread that stays inside; its child leaves the old blocks alone.
TEST(Fork, PastThreadThatNeverLeaves) {
    char* const old_block = static_cast<char*>(std::malloc(100'000));
    std::memset(old_block, 7, 100'000);
    tbbk_set_mem_tracker_callback(get_stuck);
    std::thread stuck([] { std::free(std::malloc(12'345)); });
    while (!is_callback_stuck)
        usleep(1000);
    tbbk_set_mem_tracker_callback(nullptr);
    EXPECT_EQ(status_of_child([old_block] {
                  tbbk_set_mem_tracker_callback(count_event);
                  events = 0;
                  char* const block = static_cast<char*>(std::realloc(old_block, 200'000));
                  const bool is_kept = block[0] == 7 && block[99'999] == 7;
                  std::free(block);
                  std::free(std::aligned_alloc(4096, 100));
                  return is_kept && events == 0 && use_heap();
              }),
              0);
    is_callback_stuck = false;
    stuck.join();
    std::free(old_block);
}

} // namespace
