// The heap of a forked child works. (Children of a process that is busy: tests/process/hangs.)
#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

namespace {

std::atomic<int> events = 0;

void count_event(void*, std::uint64_t, std::uint64_t, bool) {
    events.fetch_add(1);
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

std::atomic<bool> is_callback_stuck = false;

// The fork goes on without the thread that stays inside; its child leaves the old blocks alone.
TEST(Fork, PastThreadThatNeverLeaves) {
    char* const old_block = static_cast<char*>(std::malloc(100'000));
    std::memset(old_block, 7, 100'000);
    tbbk_set_mem_tracker_callback([](void*, std::uint64_t requested, std::uint64_t, bool) {
        if (requested != 12'345)
            return;
        for (is_callback_stuck = true; is_callback_stuck;)
            usleep(1000);
    });
    std::thread stuck([] { std::free(std::malloc(12'345)); });
    while (!is_callback_stuck)
        usleep(1000);
    tbbk_set_mem_tracker_callback(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        alarm(10);
        tbbk_set_mem_tracker_callback(count_event);
        events = 0;
        char* const block = static_cast<char*>(std::realloc(old_block, 200'000));
        const bool is_kept = block[0] == 7 && block[99'999] == 7;
        std::free(block);
        std::free(std::aligned_alloc(4096, 100));
        _exit(is_kept && events == 0 && use_heap() ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    is_callback_stuck = false;
    stuck.join();
    std::free(old_block);
}

} // namespace
