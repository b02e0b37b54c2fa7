// Programs whose work is allocation, for compare_programs.py. They know nothing of the library: it is
// preloaded.
//
//     churn   PAIRS            one thread, a few thousand live blocks
//     threads PAIRS THREADS    half of the blocks are freed by the next thread; PAIRS of all threads together
//     live    PAIRS BLOCKS     churn while so many blocks are held
//     phases  PAIRS            a heap that grows and shrinks, higher every second time
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
#include <memory>
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
    std::memset(block, SITE % 251, size < TOUCHED_BYTES ? size : TOUCHED_BYTES);
    return block;
}

// What one thread works on. The way to give a block back belongs to the program.
class WORK {
  public:
    explicit WORK(std::uint32_t seed) : random(seed) {}
    virtual ~WORK() = default;

    virtual void take(unsigned char* block) = 0;

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

constexpr auto site_table = []<unsigned... SITES>(std::integer_sequence<unsigned, SITES...>) {
    return std::array<unsigned char* (*)(std::size_t), NUM_SITES>{&allocate_at<SITES>...};
}
(std::make_integer_sequence<unsigned, NUM_SITES>());

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

constinit const std::array<DESCEND, NUM_FRAME_KINDS> descend_table =
    []<unsigned... KINDS>(std::integer_sequence<unsigned, KINDS...>) {
    return std::array<DESCEND, NUM_FRAME_KINDS>{&descend<KINDS>...};
}
(std::make_integer_sequence<unsigned, NUM_FRAME_KINDS>());

void run_task(WORK& work, unsigned task) {
    descend_table[task % NUM_FRAME_KINDS](work, task, 7 + task % 9);
}

void run_tasks(WORK& work, std::uint64_t pairs) {
    for (std::uint64_t done = 0; done < pairs; done += PAIRS_PER_TASK)
        run_task(work, work.next() % NUM_TASKS);
}

void visit_every_task(WORK& work) {
    for (unsigned task = 0; task < NUM_TASKS; ++task)
        run_task(work, task);
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

// Frees every second block itself and leaves the others, a bundle at a time, with the next thread.
class NEIGHBOUR : public CHURN {
  public:
    using CHURN::CHURN;
    void give_back(unsigned char* block) override {
        is_mine = !is_mine;
        if (is_mine)
            release(block);
        else
            outgoing.push_back(block);
        if (outgoing.size() == BUNDLE)
            exchange();
    }
    void exchange() {
        next_thread->receive(outgoing);
        outgoing.clear();
        {
            const std::lock_guard guard(lock);
            mailbox.swap(incoming);
        }
        for (unsigned char* block : incoming)
            release(block);
        incoming.clear();
    }

    NEIGHBOUR* next_thread = this;

  private:
    void receive(const std::vector<unsigned char*>& bundle) {
        const std::lock_guard guard(lock);
        mailbox.insert(mailbox.end(), bundle.begin(), bundle.end());
    }

    bool is_mine = false;
    std::vector<unsigned char*> outgoing, incoming, mailbox;
    std::mutex lock;
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
    visit_every_task(work);
    const std::int64_t start = now();
    run_tasks(work, pairs);
    return {now() - start, work.sum};
}

RESULT run_live(std::uint64_t pairs, std::uint64_t held) {
    HOLD hold(2);
    hold.grow_to(held);
    return run_churn(pairs);
}

RESULT run_threads(std::uint64_t pairs, std::uint64_t count) {
    std::vector<std::unique_ptr<NEIGHBOUR>> works;
    for (std::uint32_t seed = 1; seed <= count; ++seed)
        works.push_back(std::make_unique<NEIGHBOUR>(seed));
    for (std::size_t at = 0; at < count; ++at)
        works[at]->next_thread = works[(at + 1) % count].get();
    for (auto& work : works)
        visit_every_task(*work);
    const std::int64_t start = now();
    std::vector<std::jthread> threads;
    threads.reserve(works.size());
    for (auto& work : works)
        threads.emplace_back([&work, share = pairs / count] { run_tasks(*work, share); });
    threads.clear(); // joins
    RESULT result{now() - start, 0};
    for (int time = 0; time < 2; ++time) // leaves the last bundles, then takes them
        for (auto& work : works)
            work->exchange();
    for (auto& work : works)
        result.sum += work->sum;
    return result;
}

RESULT run_phases(std::uint64_t pairs) {
    constexpr std::size_t HEIGHTS[] = {50000, 150000, 100000, 250000, 150000, 400000};
    constexpr std::size_t LOWEST = 20000;
    HOLD work(3);
    visit_every_task(work);
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
    if (argc < 3)
        return 2;
    const std::string_view program = argv[1];
    const std::uint64_t pairs = std::strtoull(argv[2], nullptr, 10);
    const std::uint64_t second = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 1;
    const RESULT result = program == "churn"     ? run_churn(pairs)
                          : program == "threads" ? run_threads(pairs, second)
                          : program == "live"    ? run_live(pairs, second)
                                                 : run_phases(pairs);
    std::printf("%llu pairs, sum %llu\n", 0ULL + pairs, 0ULL + result.sum);
    std::fprintf(stderr, "LOOP %lld END %lld\n", 0LL + result.loop, 0LL + now());
    return 0;
}
