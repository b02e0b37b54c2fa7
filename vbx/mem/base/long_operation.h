// Operations of hosts that hold a lock for long and allocate meanwhile: reports, flushes, the shutdown, the
// making of a record.
//
// A fork keeps other threads out of the allocator. A thread that then waits there with the site lock held
// would hold up the events that are still inside, and the fork would wait for those. So a fork first waits,
// in front of the allocator's gate, until no such operation runs.
#pragma once

class MEM_LONG_OPERATION {
  public:
    MEM_LONG_OPERATION();
    // For who can't wait for ever: another one may be stuck, in the stream of a host for instance. For 0 ms
    // it is tried once.
    explicit MEM_LONG_OPERATION(unsigned timeout_ms);
    ~MEM_LONG_OPERATION();
    MEM_LONG_OPERATION(const MEM_LONG_OPERATION&) = delete;
    MEM_LONG_OPERATION& operator=(const MEM_LONG_OPERATION&) = delete;

    // False when the time ran out.
    bool may_begin() const { return m_may_begin; }

  private:
    bool m_may_begin;
};

// Around a step that allocates once under a lock. It goes ahead when it isn't its turn in a moment: a fork
// that meets it is slow then, and a host's other thread may not end its operation before this one has gone
// on.
class MEM_SHORT_OPERATION {
  public:
    MEM_SHORT_OPERATION();

  private:
    MEM_LONG_OPERATION m_operation;
};

// Around a fork. The wait is bounded: a fork that comes out of a report itself, or meets one that is stuck,
// goes ahead.
void mem_hold_long_operations();
void mem_release_long_operations();
void mem_reset_long_operations_after_fork();
