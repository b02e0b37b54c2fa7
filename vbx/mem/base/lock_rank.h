// The lock order of the library, in one table. A thread takes locks in rising rank and never two of one rank.
//
// | rank        | locks                                                                                     |
// |-------------|-------------------------------------------------------------------------------------------|
// | library     | the library lock: start, teardown                                                         |
// | granularity | changes of the granularity mask                                                           |
// | callbacks   | changes of the callback table, which the one above may be held for                        |
// | gate        | the gate, as a mouse or as a cat                                                          |
// | blocks      | a slab of a live-block map                                                                |
// | timeline    | a timeline's own section, around one of the leaves                                        |
// | leaf        | site table, a site, module lock, symbol lock, label lock, the gates of the bin and tag    |
// |             | tables and of ticks and total: never together, but for all sites with their table         |
// | innermost   | the growing of a bin or tag table, whose allocation's event is turned away at once        |
// | free marks  | an entry of the double-free check, in any event; only the heap is called, and all but the |
// |             | callbacks without locks turn its events away                                              |
//
// The shutdown changes the mask while it is inside the gate as a cat. That is the one step down, and safe:
// who holds the granularity or the callback lock never enters the gate, because its events are turned away.
#pragma once

#include <cstdint>

enum class MEM_LOCK_RANK : std::uint8_t {
    library,
    granularity,
    callbacks,
    gate,
    blocks,
    timeline,
    leaf,
    innermost,
    free_marks,
};

#if defined(VBX_RANK_CHECK)

// Ends the process when the calling thread holds a lock of this rank or a higher one.
void mem_rank_acquire(MEM_LOCK_RANK rank);
void mem_rank_release(MEM_LOCK_RANK rank);
// In a forked child: the locks of this thread's past are void.
void mem_rank_forget_all();

#else

inline void mem_rank_acquire(MEM_LOCK_RANK) {}
inline void mem_rank_release(MEM_LOCK_RANK) {}
inline void mem_rank_forget_all() {}

#endif

// A stretch in which a lock that the library doesn't own (an accessor of a concurrent map) is held.
class MEM_RANK_SCOPE {
  public:
    explicit MEM_RANK_SCOPE(MEM_LOCK_RANK rank) : m_rank(rank) { mem_rank_acquire(rank); }
    ~MEM_RANK_SCOPE() { mem_rank_release(m_rank); }
    MEM_RANK_SCOPE(const MEM_RANK_SCOPE&) = delete;
    MEM_RANK_SCOPE& operator=(const MEM_RANK_SCOPE&) = delete;

  private:
    MEM_LOCK_RANK m_rank;
};
