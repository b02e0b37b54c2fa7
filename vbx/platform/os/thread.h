// Services of the kernel for the calling thread.
#pragma once

#include <cstdint>

// One wait for another thread. It pauses a few times, then yields the processor and, after some rounds,
// sleeps for moments: yielding alone never gives the processor to a thread of lower priority. No cancellation
// point.
class OS_PATIENCE {
  public:
    void wait();

  private:
    unsigned m_rounds = 0;
};

// 0 until the thread has asked for its id.
[[gnu::tls_model("initial-exec")]] inline constinit __thread std::uint32_t os_kept_thread_id = 0;
std::uint32_t os_ask_thread_id();

// Id of the calling thread: unique among live threads, reused after a thread has ended. A system call the
// first time on each thread, a load afterwards.
inline std::uint32_t os_thread_id() {
    const std::uint32_t id = os_kept_thread_id;
    return id != 0 ? id : os_ask_thread_id();
}

// In a forked child: the one thread there has another id than the one it is a copy of.
void os_forget_thread_id();

// Keeps the calling thread from being cancelled for a scope. Reading files and printing are points where a
// pending cancellation strikes; allocating memory is none, so inside an event it must not.
class OS_NO_CANCELLATION {
  public:
    OS_NO_CANCELLATION();
    ~OS_NO_CANCELLATION();
    OS_NO_CANCELLATION(const OS_NO_CANCELLATION&) = delete;
    OS_NO_CANCELLATION& operator=(const OS_NO_CANCELLATION&) = delete;

  private:
    int m_old_state;
};
