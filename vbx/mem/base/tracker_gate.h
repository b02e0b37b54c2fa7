// The gate between event threads and the rare operations that must see the tracker standing still.
//
// Event threads are mice: any number of them is inside at once. The operations are cats: a cat is inside
// alone.
//
//     mouse 1   |--inside--|            waits..........|--inside--|
//     mouse 2        |--inside---|      waits..........|--inside-|
//     cat              approaching.......|--inside-----|
//
// A cat announces itself first. From then on no new mouse gets in while those inside finish, so cats come
// before mice, and mice starve while cats keep coming. Cats have no order among themselves.
//
// A mouse must never ask to enter as a cat: it would wait for itself.
//
// A mouse writes to a word of its own thread alone, and without a locked instruction: cats, which are rare,
// pay for that (see visitors.h). It counts itself and then looks for cats; a cat announces itself and then
// looks for mice. So one of two that come at once sees the other, and the mouse gives way.
//
// The tracker has its gate, and smaller things that many threads use at once and one has to see still have
// gates of the same kind.
#pragma once

#include "vbx/mem/base/annotations.h"
#include "vbx/mem/base/cache_line.h"
#include "vbx/mem/base/check.h"
#include "vbx/mem/base/lock_rank.h"
#include "vbx/mem/base/visitors.h"

#include <atomic>
#include <cstdint>

enum class MEM_GATE_ROLE : int { mouse = 0, cat = 1 };

class MEM_CAPABILITY("gate") MEM_TRACKER_GATE {
  public:
    // Gates of one process that are used at the same time count their mice in different words.
    constexpr explicit MEM_TRACKER_GATE(MEM_VISITED visited = MEM_VISITED::gate,
                                        MEM_LOCK_RANK rank = MEM_LOCK_RANK::gate)
        : m_mice(visited), m_rank(rank) {}
    MEM_TRACKER_GATE(const MEM_TRACKER_GATE&) = delete;
    MEM_TRACKER_GATE& operator=(const MEM_TRACKER_GATE&) = delete;

    // Returns when the caller is inside. Use the two guards below: they carry the lock annotations.
    void enter(MEM_GATE_ROLE role) {
        if (role == MEM_GATE_ROLE::cat)
            wait_as_cat();
        else
            enter_as_mouse(tbbk_thread_words());
    }
    void leave(MEM_GATE_ROLE role) {
        if (role == MEM_GATE_ROLE::cat)
            end_cat();
        else
            leave_as_mouse(tbbk_thread_words());
    }
    // Enters as a cat unless that takes longer than timeout_ms. The end of the process can't wait for ever.
    bool enter_as_cat_within(unsigned timeout_ms) MEM_TRY_ACQUIRE(true);
    void leave_as_cat() MEM_RELEASE() MEM_NO_THREAD_SAFETY_ANALYSIS { leave(MEM_GATE_ROLE::cat); }
    // Empties the gate whoever was inside: for a forked child, whose other threads are gone.
    void reset();

  private:
    friend class MEM_GATE_MOUSE;

    void enter_as_mouse(TBBK_THREAD_WORDS* words) {
        mem_rank_acquire(m_rank);
        m_mice.count_in(words);
        if (has_cats()) [[unlikely]]
            give_way_to_cats(words);
    }
    void leave_as_mouse(TBBK_THREAD_WORDS* words) {
        MEM_CHECK(cats == 0);
        const std::int32_t mice = m_mice.count_out(words);
        MEM_CHECK(mice >= 0);
        mem_rank_release(m_rank);
    }
    bool has_cats() const { return catsApproaching.load() != 0 || cats.load() != 0; }
    void give_way_to_cats(TBBK_THREAD_WORDS* words);
    void wait_as_cat();
    void approach();
    bool try_enter_cat();
    void end_announcement();
    void end_cat();

    MEM_VISITORS m_mice;
    const MEM_LOCK_RANK m_rank;
    // Only cats write here, so every mouse has the line at hand.
    alignas(MEM_CACHE_LINE) std::atomic<std::int32_t> catsApproaching{0};
    std::atomic<std::int32_t> cats{0};            // inside
    std::atomic<std::int32_t> m_cats_in_front{0}; // the one that looks for mice, or is inside
};

class MEM_SCOPED_CAPABILITY MEM_GATE_MOUSE {
  public:
    // words  tbbk_thread_words() of the calling thread: who passes several gates asks for them once
    explicit MEM_GATE_MOUSE(MEM_TRACKER_GATE& gate, TBBK_THREAD_WORDS* words = tbbk_thread_words())
        MEM_ACQUIRE_SHARED(gate)
        : m_gate(gate), m_words(words) {
        gate.enter_as_mouse(words);
    }
    ~MEM_GATE_MOUSE() MEM_RELEASE_GENERIC() { m_gate.leave_as_mouse(m_words); }
    MEM_GATE_MOUSE(const MEM_GATE_MOUSE&) = delete;
    MEM_GATE_MOUSE& operator=(const MEM_GATE_MOUSE&) = delete;

  private:
    MEM_TRACKER_GATE& m_gate;
    TBBK_THREAD_WORDS* const m_words;
};

class MEM_SCOPED_CAPABILITY MEM_GATE_CAT {
  public:
    explicit MEM_GATE_CAT(MEM_TRACKER_GATE& gate) MEM_ACQUIRE(gate) : m_gate(gate) {
        m_gate.enter(MEM_GATE_ROLE::cat);
    }
    ~MEM_GATE_CAT() MEM_RELEASE() { m_gate.leave(MEM_GATE_ROLE::cat); }
    MEM_GATE_CAT(const MEM_GATE_CAT&) = delete;
    MEM_GATE_CAT& operator=(const MEM_GATE_CAT&) = delete;

  private:
    MEM_TRACKER_GATE& m_gate;
};
