// Threads that allocate and free, and one that starts and ends threads, each with small and large blocks.
#pragma once

#include "tests/process/hangs/busy.h"

class BUSY_THREADS_AND_ENDS {
  public:
    ~BUSY_THREADS_AND_ENDS() {
        m_is_over = true;
        m_ending.join();
    }

  private:
    BUSY_THREADS m_busy{2};
    std::atomic<bool> m_is_over = false;
    std::thread m_ending{[this] {
        while (!m_is_over)
            std::thread(allocate_and_free, 1, 65).join();
    }};
};
