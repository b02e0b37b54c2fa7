// A recursive lock that tries for a while before it sleeps. Usable before any constructor has run and never
// destroyed.
#pragma once

#include <pthread.h>

class OS_CRITICAL_SECTION {
  public:
    constexpr OS_CRITICAL_SECTION() = default;
    OS_CRITICAL_SECTION(const OS_CRITICAL_SECTION&) = delete;
    OS_CRITICAL_SECTION& operator=(const OS_CRITICAL_SECTION&) = delete;

    void enter();
    // False when the section could not be had in time.
    bool enter_within(unsigned timeout_ms);
    void leave();
    // In a forked child: free, whoever held it in the parent.
    void reset_after_fork();

  private:
    pthread_mutex_t m_mutex = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;
};
