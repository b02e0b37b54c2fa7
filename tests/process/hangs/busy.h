// Threads that allocate and free blocks of 16 bytes to 20 MB until they are told to stop. Some of the blocks
// are those of short threads, which the first one starts.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <thread>
#include <vector>

inline void allocate_and_free(unsigned seed, unsigned count) {
    void* kept[16] = {};
    for (unsigned step = 0; step < count; ++step) {
        seed = seed * 1664525U + 1013904223U;
        // Mostly small; every 64th is large enough for another part of the allocator.
        const std::size_t largest = step % 64 == 0 ? 20'000'000 : 4000;
        void*& slot = kept[seed >> 28];
        std::free(slot);
        slot = std::malloc(16 + (seed >> 4) % largest);
    }
    for (void* const block : kept)
        std::free(block);
}

class BUSY_THREADS {
  public:
    explicit BUSY_THREADS(unsigned count) {
        for (unsigned index = 0; index < count; ++index)
            m_threads.emplace_back([this, index] {
                while (!m_stop)
                    if (index == 0)
                        std::thread(allocate_and_free, 1, 65).join();
                    else
                        allocate_and_free(index, 200);
            });
    }
    ~BUSY_THREADS() { m_stop = true; }

  private:
    std::atomic<bool> m_stop{false};
    std::vector<std::jthread> m_threads;
};
