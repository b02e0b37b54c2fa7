// Threads that allocate and free, and one that starts and ends threads, each with small and large blocks.
#pragma once

#include "tests/process/hangs/busy.h"

class BUSY_THREADS_AND_ENDS {
  public:
    explicit BUSY_THREADS_AND_ENDS(unsigned allocating) : m_busy(allocating) {}
    ~BUSY_THREADS_AND_ENDS() {
        m_is_over = true;
        m_ending.join();
    }

  private:
    BUSY_THREADS m_busy;
    std::atomic<bool> m_is_over = false;
    std::thread m_ending{[this] {
        while (!m_is_over)
            std::thread([] {
                std::free(std::malloc(100));
                std::free(std::malloc(1'000'000));
            }).join();
    }};
};
