// Programs whose work is allocation, for compare_programs.py. They know nothing of the library: it is
// preloaded.
//
//     workloads churn   PAIRS             one thread, a few thousand live blocks
//     workloads threads PAIRS THREADS     half of the blocks are freed by the next thread; PAIRS of all
//     threads workloads live    PAIRS BLOCKS      churn while so many blocks are held workloads phases  PAIRS
//     a heap that grows and shrinks, higher every second time
//
// A task is one way down through 12 to 20 frames to 8 of 512 allocation sites, so the same some thousand
// stacks come again and again, as they do in a program; a stack that is random at each frame would never come
// twice.
//
// Standard output is the same in each run: pairs, and a sum over what was written into the blocks. Standard
// error has "LOOP END": nanoseconds of the measured loop, without the first visit of each task, and the
// monotonic time at the end of main.

#include <array>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

namespace {

constexpr unsigned NUM_SITES = 512;
constexpr unsigned NUM_FRAME_KINDS = 64;
constexpr unsigned NUM_TASKS = 1024;
constexpr unsigned PAIRS_PER_TASK = 8;
constexpr std::size_t TOUCHED_BYTES = 64;
constexpr std::size_t CHURNED_BLOCKS = 4096;
constexpr std::size_t BUNDLE = 64;

std::int64_t now() {
    const auto time = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::nanoseconds>(time).count();
}

template <unsigned SITE>
[[gnu::noinline]] unsigned char* allocate_at(std::size_t size) {
    auto* const block = static_cast<unsigned char*>(std::malloc(size));
    if (block == nullptr)
        std::abort();
    std::memset(block, SITE % 251, size < TOUCHED_BYTES ? size : TOUCHED_BYTES);
    return block;
}

// What one thread works on. The way to give a block back belongs to the program.
class WORK {
  public:
    explicit WORK(std::uint32_t seed) : random(seed) {}
    virtual ~WORK() = default;
    WORK(const WORK&) = delete;
    WORK& operator=(const WORK&) = delete;

    virtual void take(unsigned char* block) = 0;
    void run_tasks(std::uint64_t pairs);
    void visit_every_task();

    std::uint32_t next() { return (random = random * 1664525U + 1013904223U) >> 8; }

    // Most blocks are small: each doubling up to 2000 bytes is as frequent as the one before.
    std::size_t next_size() {
        const std::size_t doubling = std::size_t{16} << (next() % 7);
        const std::size_t size = doubling + next() % doubling;
        return size < 2000 ? size : 2000;
    }

    void release(unsigned char* block) {
        if (block != nullptr)
            sum += *block;
        std::free(block);
    }

    std::uint64_t sum = 0;

  private:
    std::uint32_t random;
};

template <std::size_t... SITES>
constexpr auto sites(std::index_sequence<SITES...>) {
    return std::array{&allocate_at<SITES>...};
}
constexpr auto site_table = sites(std::make_index_sequence<NUM_SITES>());

using DESCEND = void (*)(WORK& work, unsigned task, unsigned depth);
extern const std::array<DESCEND, NUM_FRAME_KINDS> descend_table;

template <unsigned KIND>
[[gnu::noinline]] void descend(WORK& work, unsigned task, unsigned depth) {
    if (depth > 0) {
        descend_table[(KIND * 5 + task * 7 + depth) % NUM_FRAME_KINDS](work, task, depth - 1);
    } else {
        for (unsigned pair = 0; pair < PAIRS_PER_TASK; ++pair)
            work.take(site_table[(task * PAIRS_PER_TASK + pair * 37) % NUM_SITES](work.next_size()));
    }
    asm volatile("" ::: "memory"); // keeps each call a call: a jump in its place would make no frame
}

template <std::size_t... KINDS>
constexpr auto frame_kinds(std::index_sequence<KINDS...>) {
    return std::array<DESCEND, NUM_FRAME_KINDS>{&descend<KINDS>...};
}
constinit const std::array<DESCEND, NUM_FRAME_KINDS> descend_table =
    frame_kinds(std::make_index_sequence<NUM_FRAME_KINDS>());

void run_task(WORK& work, unsigned task) {
    descend_table[task % NUM_FRAME_KINDS](work, task, 7 + task % 9);
}

void WORK::run_tasks(std::uint64_t pairs) {
    for (std::uint64_t done = 0; done < pairs; done += PAIRS_PER_TASK)
        run_task(*this, next() % NUM_TASKS);
}

void WORK::visit_every_task() {
    for (unsigned task = 0; task < NUM_TASKS; ++task)
        run_task(*this, task);
}

// A new block takes the place of one among those that are live.
class CHURN : public WORK {
  public:
    using WORK::WORK;
    ~CHURN() override {
        for (unsigned char* block : blocks)
            std::free(block);
    }
    void take(unsigned char* block) override {
        std::swap(block, blocks[next() % blocks.size()]);
        give_back(block);
    }
    virtual void give_back(unsigned char* block) { release(block); }

  private:
    std::vector<unsigned char*> blocks = std::vector<unsigned char*>(CHURNED_BLOCKS);
};

class NEIGHBOUR : public CHURN {
  public:
    using CHURN::CHURN;
    void give_back(unsigned char* block) override {
        is_mine = !is_mine;
        if (is_mine) {
            release(block);
            return;
        }
        outgoing.push_back(block);
        if (outgoing.size() == BUNDLE) {
            next_thread->receive(outgoing);
            release_received();
        }
    }
    void release_received() {
        std::vector<unsigned char*> mine;
        receive(mine);
        for (unsigned char* block : mine)
            release(block);
    }
    void finish() {
        next_thread->receive(outgoing);
        release_received();
    }

    NEIGHBOUR* next_thread = this;

  private:
    // Swaps with an empty mailbox or adds to a full one; whoever brings nothing leaves with all.
    void receive(std::vector<unsigned char*>& bundle) {
        const std::lock_guard guard(lock);
        if (bundle.empty() || mailbox.empty()) {
            mailbox.swap(bundle);
            return;
        }
        mailbox.insert(mailbox.end(), bundle.begin(), bundle.end());
        bundle.clear();
    }

    bool is_mine = false;
    std::vector<unsigned char*> outgoing;
    std::mutex lock;
    std::vector<unsigned char*> mailbox;
};

// Blocks are only held; shrinking frees them in random order.
class HOLD : public WORK {
  public:
    using WORK::WORK;
    ~HOLD() override { shrink_to(0); }
    void take(unsigned char* block) override { blocks.push_back(block); }
    void grow_to(std::size_t count) {
        while (blocks.size() < count)
            run_task(*this, next() % NUM_TASKS);
    }
    void shrink_to(std::size_t count) {
        while (blocks.size() > count) {
            std::swap(blocks[next() % blocks.size()], blocks.back());
            release(blocks.back());
            blocks.pop_back();
        }
    }

  private:
    std::vector<unsigned char*> blocks;
};

struct RESULT {
    std::int64_t loop;
    std::uint64_t sum;
};

RESULT run_churn(std::uint64_t pairs) {
    CHURN work(1);
    work.visit_every_task();
    const std::int64_t start = now();
    work.run_tasks(pairs);
    return {now() - start, work.sum};
}

RESULT run_live(std::uint64_t pairs, std::uint64_t held) {
    HOLD hold(2);
    hold.grow_to(held);
    return run_churn(pairs);
}

RESULT run_threads(std::uint64_t pairs, std::uint64_t count) {
    std::vector<NEIGHBOUR*> works;
    for (std::uint32_t seed = 1; seed <= count; ++seed)
        works.push_back(new NEIGHBOUR(seed));
    for (std::size_t at = 0; at < count; ++at) {
        works[at]->next_thread = works[(at + 1) % count];
        works[at]->visit_every_task();
    }
    const std::int64_t start = now();
    std::vector<std::thread> threads;
    for (NEIGHBOUR* work : works)
        threads.emplace_back([=] { work->run_tasks(pairs / count); });
    for (std::thread& thread : threads)
        thread.join();
    RESULT result{now() - start, 0};
    for (NEIGHBOUR* work : works)
        work->finish();
    for (NEIGHBOUR* work : works) {
        work->release_received();
        result.sum += work->sum;
        delete work;
    }
    return result;
}

RESULT run_phases(std::uint64_t pairs) {
    constexpr std::size_t HEIGHTS[] = {50000, 150000, 100000, 250000, 150000, 400000};
    constexpr std::size_t LOWEST = 20000;
    HOLD work(3);
    work.visit_every_task();
    const std::int64_t start = now();
    for (std::uint64_t done = 0, round = 0; done < pairs;
         done += HEIGHTS[round++ % std::size(HEIGHTS)] - LOWEST) {
        work.grow_to(HEIGHTS[round % std::size(HEIGHTS)]);
        work.shrink_to(LOWEST);
    }
    return {now() - start, work.sum};
}

} // namespace

int main(int argc, char** argv) {
    const std::string_view program = argc > 2 ? argv[1] : "";
    const std::uint64_t pairs = argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 0;
    const std::uint64_t second = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 1;
    RESULT result{};
    if (program == "churn")
        result = run_churn(pairs);
    else if (program == "threads")
        result = run_threads(pairs, second);
    else if (program == "live")
        result = run_live(pairs, second);
    else if (program == "phases")
        result = run_phases(pairs);
    else
        return 2;
    std::printf("%llu pairs, sum %llu\n", static_cast<unsigned long long>(pairs),
                static_cast<unsigned long long>(result.sum));
    std::fprintf(stderr, "LOOP %lld END %lld\n", static_cast<long long>(result.loop),
                 static_cast<long long>(now()));
    return 0;
}
