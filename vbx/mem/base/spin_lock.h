// The lock of nearly everything in the tracker: held for a few field updates, without owner, recursion or
// time limit. A thread that finds it taken yields the processor before long.
#pragma once

#include "vbx/mem/base/annotations.h"
#include "vbx/mem/base/cache_line.h"
#include "vbx/mem/base/lock_rank.h"
#include "vbx/platform/os/one_thread.h"
#include "vbx/platform/os/thread.h"

#include <atomic>
#include <cstdint>

class MEM_CAPABILITY("spin lock") MEM_SPIN_LOCK {
  public:
    constexpr explicit MEM_SPIN_LOCK(MEM_LOCK_RANK rank) : m_rank(rank) {}
    MEM_SPIN_LOCK(const MEM_SPIN_LOCK&) = delete;
    MEM_SPIN_LOCK& operator=(const MEM_SPIN_LOCK&) = delete;

    void acquire() MEM_ACQUIRE() {
        mem_rank_acquire(m_rank);
        acquire_unranked();
    }
    void release() MEM_RELEASE() {
        release_unranked();
        mem_rank_release(m_rank);
    }
    // For who takes all locks of a kind together, which the order of ranks has no place for.
    void acquire_unranked() MEM_NO_THREAD_SAFETY_ANALYSIS {
        OS_PATIENCE patience;
        while (os_exchange(m_word, std::uint64_t{1}, std::memory_order_acquire) != 0)
            patience.wait();
    }
    void release_unranked() MEM_NO_THREAD_SAFETY_ANALYSIS { m_word.store(0, std::memory_order_release); }
    // Frees the lock whoever held it: for a forked child, whose other threads are gone.
    void reset() { m_word.store(0, std::memory_order_relaxed); }

  private:
    std::atomic<std::uint64_t> m_word{0};
    MEM_LOCK_RANK m_rank;
};

// For one that many events take.
class alignas(MEM_CACHE_LINE) MEM_BUSY_SPIN_LOCK : public MEM_SPIN_LOCK {
  public:
    using MEM_SPIN_LOCK::MEM_SPIN_LOCK;
};

class MEM_SCOPED_CAPABILITY MEM_SPIN_GUARD {
  public:
    explicit MEM_SPIN_GUARD(MEM_SPIN_LOCK& lock) MEM_ACQUIRE(lock) : m_lock(lock) { m_lock.acquire(); }
    ~MEM_SPIN_GUARD() MEM_RELEASE() { m_lock.release(); }
    MEM_SPIN_GUARD(const MEM_SPIN_GUARD&) = delete;
    MEM_SPIN_GUARD& operator=(const MEM_SPIN_GUARD&) = delete;

  private:
    MEM_SPIN_LOCK& m_lock;
};

// The other way round: gives a held lock up for a scope, also when the scope ends by an exception.
class MEM_SCOPED_CAPABILITY MEM_SPIN_UNGUARD {
  public:
    explicit MEM_SPIN_UNGUARD(MEM_SPIN_LOCK& lock) MEM_RELEASE(lock) : m_lock(lock) { m_lock.release(); }
    // To the analysis the end of a scope undoes its beginning, which here takes the lock again.
    ~MEM_SPIN_UNGUARD() MEM_RELEASE() MEM_NO_THREAD_SAFETY_ANALYSIS { m_lock.acquire(); }
    MEM_SPIN_UNGUARD(const MEM_SPIN_UNGUARD&) = delete;
    MEM_SPIN_UNGUARD& operator=(const MEM_SPIN_UNGUARD&) = delete;

  private:
    MEM_SPIN_LOCK& m_lock;
};
