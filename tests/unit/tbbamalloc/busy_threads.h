// Threads that allocate and free blocks of 16 bytes to 20 MB until they are stopped, and one that starts and
// ends threads, each with small and large blocks.
#pragma once

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdlib>
#include <thread>
#include <vector>

class BUSY_THREADS {
  public:
    explicit BUSY_THREADS(unsigned allocating) {
        for (unsigned i = 0; i != allocating; ++i)
            threads.emplace_back([this, i] { allocate(i); });
        threads.emplace_back([this] {
            while (!is_over)
                std::thread([] {
                    std::free(std::malloc(100));
                    std::free(std::malloc(1'000'000));
                }).join();
        });
    }
    ~BUSY_THREADS() {
        is_over = true;
        for (std::thread& thread : threads)
            thread.join();
    }
    BUSY_THREADS(const BUSY_THREADS&) = delete;
    BUSY_THREADS& operator=(const BUSY_THREADS&) = delete;

  private:
    void allocate(unsigned seed) {
        void* blocks[16] = {};
        for (std::uint32_t random = seed; !is_over; random = random * 1664525U + 1013904223U) {
            void*& block = blocks[(random >> 8) % 16];
            const std::size_t size =
                std::min<std::size_t>(std::size_t{16} << ((random >> 12) % 22), 20'000'000);
            if (((random >> 20) & 1) != 0)
                block = std::realloc(block, size);
            else {
                std::free(block);
                block = std::malloc(size);
            }
        }
        for (void* block : blocks)
            std::free(block);
    }

    std::atomic<bool> is_over = false;
    std::vector<std::thread> threads;
};
