// The lock of a timeline. A report holds it from its first line to its last, so who waits for it sleeps.
#pragma once

#include "vbx/mem/base/annotations.h"
#include "vbx/mem/base/lock_rank.h"
#include "vbx/platform/os/critical_section.h"

class MEM_CAPABILITY("timeline section") MEM_TIMELINE_SECTION {
  public:
    void enter() MEM_ACQUIRE() {
        mem_rank_acquire(MEM_LOCK_RANK::timeline);
        m_section.enter();
    }
    void leave() MEM_RELEASE() {
        m_section.leave();
        mem_rank_release(MEM_LOCK_RANK::timeline);
    }
    // In a forked child: free, whoever held it.
    void reset_after_fork() { m_section.reset_after_fork(); }

  private:
    OS_CRITICAL_SECTION m_section;
};

class MEM_SCOPED_CAPABILITY MEM_TIMELINE_GUARD {
  public:
    explicit MEM_TIMELINE_GUARD(MEM_TIMELINE_SECTION& section) MEM_ACQUIRE(section) : m_section(section) {
        m_section.enter();
    }
    ~MEM_TIMELINE_GUARD() MEM_RELEASE() { m_section.leave(); }
    MEM_TIMELINE_GUARD(const MEM_TIMELINE_GUARD&) = delete;
    MEM_TIMELINE_GUARD& operator=(const MEM_TIMELINE_GUARD&) = delete;

  private:
    MEM_TIMELINE_SECTION& m_section;
};
