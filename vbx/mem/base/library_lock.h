// The lock of start and teardown: a recursive critical section that can be absent.
//
// Before it exists and after it is gone, entering and leaving only move a count, so code that runs at the
// edges of the process needs no tests of its own.
#pragma once

#include "vbx/mem/base/annotations.h"

class MEM_CAPABILITY("library lock") MEM_LIBRARY_LOCK {
  public:
    void create();
    bool exists() const;
    void enter() MEM_ACQUIRE();
    void leave() MEM_RELEASE();
    // Leaves one level, whoever holds more, and does away with the section. A destruction that is under way
    // already makes this do nothing.
    void destroy();
    // In a forked child: the section is free, whoever held it.
    void reset_after_fork();
};

inline constinit MEM_LIBRARY_LOCK mem_library_lock;

class MEM_SCOPED_CAPABILITY MEM_LIBRARY_GUARD {
  public:
    MEM_LIBRARY_GUARD() MEM_ACQUIRE(mem_library_lock) { mem_library_lock.enter(); }
    ~MEM_LIBRARY_GUARD() MEM_RELEASE() { mem_library_lock.leave(); }
    MEM_LIBRARY_GUARD(const MEM_LIBRARY_GUARD&) = delete;
    MEM_LIBRARY_GUARD& operator=(const MEM_LIBRARY_GUARD&) = delete;
};
