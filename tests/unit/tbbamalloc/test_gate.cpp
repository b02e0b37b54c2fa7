// Who may be inside the shim while a thread has asked for quiet, as every fork does. (Children of a process
// that is busy: tests/process/hangs.)
#include "tests/process/hangs/busy.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <latch>

namespace {

std::atomic<std::uint64_t> foreign_events = 0;
std::atomic<pthread_t> quiet_thread = 0;

TEST(Gate, QuietThreadIsAloneAndThreadsTakeTurns) {
    tbbk_set_mem_tracker_callback([](void*, std::uint64_t, std::uint64_t, bool) {
        if (pthread_self() != quiet_thread)
            foreign_events.fetch_add(1);
    });
    const auto be_quiet_again_and_again = [] {
        for (int round = 0; round != 40; ++round) {
            const std::uint64_t events_before = foreign_events;
            while (foreign_events == events_before)
                usleep(100); // the others have been let in again
            ASSERT_TRUE(tbbk_quiesce_begin(20'000));
            quiet_thread = pthread_self();
            const std::uint64_t events_at_start = foreign_events;
            std::free(std::malloc(1000)); // its own way stays open
            ASSERT_TRUE(tbbk_quiesce_begin(10'000));
            usleep(500);
            tbbk_quiesce_end();
            EXPECT_EQ(foreign_events, events_at_start);
            quiet_thread = 0;
            tbbk_quiesce_end();
        }
    };
    {
        const BUSY_THREADS busy(3);
        const std::jthread first(be_quiet_again_and_again), second(be_quiet_again_and_again);
        be_quiet_again_and_again();
    }
    tbbk_set_mem_tracker_callback(nullptr);
}

std::atomic<int> waiting_callbacks = 0;
std::atomic<bool> may_leave = false;

// Threads that stay inside the hook until they may leave.
class STUCK_THREADS {
  public:
    explicit STUCK_THREADS(int count) {
        waiting_callbacks = 0;
        may_leave = false;
        tbbk_set_mem_tracker_callback([](void*, std::uint64_t requested, std::uint64_t, bool) {
            if (requested != 77)
                return;
            waiting_callbacks.fetch_add(1);
            while (!may_leave)
                usleep(1000);
        });
        for (int index = 0; index != count; ++index)
            threads.emplace_back([] { std::free(std::malloc(77)); });
        while (waiting_callbacks != count)
            usleep(1000);
        tbbk_set_mem_tracker_callback(nullptr);
    }
    ~STUCK_THREADS() { may_leave = true; }

  private:
    std::vector<std::jthread> threads;
};

// 300: more threads at once than there are slots without an mmap.
TEST(Gate, StuckCallbacksAreReportedAndNobodyElseGetsIn) {
    for (const int count : {1, 300}) {
        STUCK_THREADS stuck(count);
        std::atomic<bool> is_there = false;
        std::atomic<bool> did_get_in = false;
        const std::jthread late([&] {
            while (!is_there)
                usleep(100);
            std::free(std::malloc(10));
            did_get_in = true;
        });
        EXPECT_FALSE(tbbk_quiesce_begin(20));
        is_there = true;
        usleep(50'000);
        EXPECT_FALSE(did_get_in);
        may_leave = true;
        EXPECT_TRUE(tbbk_quiesce_begin(20'000)) << "the stuck threads have left";
        tbbk_quiesce_end();
        tbbk_quiesce_end();
    }
}

// A thread that is cancelled while it waits for the quiet, as fork() and exit() do, would leave the gate up.
TEST(Gate, DoesNotOutliveTheThreadThatRaisedIt) {
    {
        const STUCK_THREADS stuck(1); // leaves through the gate, which has to be open
        static bool did_come_back = false;
        std::thread([] {
            pthread_cancel(pthread_self());
            EXPECT_FALSE(tbbk_quiesce_begin(20));
            tbbk_quiesce_end();
            did_come_back = true;
        }).join();
        EXPECT_TRUE(did_come_back);
        std::thread(tbbk_quiesce_begin, 0).join(); // and never ends it
    }
    EXPECT_TRUE(tbbk_quiesce_begin(10'000)) << "the turn is free again";
    tbbk_quiesce_end();
}

// The fork goes on without the thread that stays inside; its child leaves the old blocks alone and has no
// events.
TEST(Gate, ForksPastAThreadThatNeverLeaves) {
    char* const old_block = static_cast<char*>(std::malloc(100'000));
    std::memset(old_block, 7, 100'000);
    const STUCK_THREADS stuck(1);
    const pid_t child = fork();
    if (child == 0) {
        alarm(10);
        tbbk_set_mem_tracker_callback([](void*, std::uint64_t, std::uint64_t, bool) { _exit(2); });
        char* const block = static_cast<char*>(std::realloc(old_block, 200'000));
        const bool is_kept = block[0] == 7 && block[99'999] == 7;
        std::free(block);
        std::free(std::aligned_alloc(4096, 100));
        allocate_and_free(1, 100);
        std::thread(allocate_and_free, 2, 100).join();
        _exit(is_kept ? 0 : 1);
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    std::free(old_block);
}

// As when two threads call exit() inside their events.
TEST(Gate, TwoCallbacksMayAskForQuietAtOnce) {
    std::latch both(2);
    static std::latch* both_are_inside;
    both_are_inside = &both;
    tbbk_set_mem_tracker_callback([](void*, std::uint64_t requested, std::uint64_t, bool) {
        if (requested != 77)
            return;
        both_are_inside->arrive_and_wait();
        EXPECT_TRUE(tbbk_quiesce_begin(20'000));
        std::free(std::malloc(10));
        tbbk_quiesce_end();
    });
    std::thread first([] { std::free(std::malloc(77)); });
    std::thread([] { std::free(std::malloc(77)); }).join();
    first.join();
    tbbk_set_mem_tracker_callback(nullptr);
}

// A key whose destructor frees, allocates and arms itself again runs in every pass over the thread's keys,
// behind the destructors of the shim and of the heap.
TEST(Gate, KeyDestructorsMayUseTheHeap) {
    static pthread_key_t key;
    static std::atomic<int> destroyed = 0;
    const auto destroy = [](void* block) {
        std::free(block);
        destroyed.fetch_add(1);
        pthread_setspecific(key, std::malloc(10));
    };
    ASSERT_EQ(pthread_key_create(&key, destroy), 0);
    for (int i = 0; i != 2000; ++i)
        std::thread([] { pthread_setspecific(key, std::malloc(10)); }).join();
    EXPECT_GE(destroyed, 2000);
    pthread_key_delete(key);
    EXPECT_TRUE(tbbk_quiesce_begin(10'000)) << "no dead thread counts as inside";
    tbbk_quiesce_end();
}

// More threads than there are places at the start.
TEST(ThreadWords, AreAThreadsOwnAndOutliveIt) {
    constexpr std::int64_t COUNT = 200;
    const auto sum_of_all = [] {
        std::int64_t sum = 0;
        TBBK_THREAD_WORDS* words = nullptr;
        while ((words = tbbk_next_thread_words(words)) != nullptr)
            sum += words->amounts[1];
        return sum;
    };
    for (std::int64_t round = 1; round <= 2; ++round) {
        std::latch all_are_there(COUNT);
        std::vector<std::jthread> threads;
        for (std::int64_t index = 0; index != COUNT; ++index)
            threads.emplace_back([&all_are_there] {
                TBBK_THREAD_WORDS* const words = tbbk_thread_words();
                const std::int64_t before = words->amounts[1].exchange(-1'000'000);
                all_are_there.arrive_and_wait();
                EXPECT_EQ(words->amounts[1], -1'000'000); // nobody else's
                words->amounts[1] = before + 1;
            });
        threads.clear(); // waits for them
        EXPECT_EQ(sum_of_all(), round * COUNT);
    }
}

} // namespace
