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
// Mice are counted in several places, each thread's in one of them: a mouse writes to no memory that all
// others write to. It counts itself and then looks for cats; a cat announces itself and then looks for mice.
// So one of two that come at once sees the other, and the mouse gives way. The one thread of a process counts
// itself too: a signal handler on it may end the process, or a second thread begin, while it is inside.
#pragma once

#include "vbx/mem/base/annotations.h"
#include "vbx/mem/base/cache_line.h"
#include "vbx/mem/base/check.h"
#include "vbx/mem/base/lock_rank.h"
#include "vbx/platform/os/one_thread.h"
#include "vbx/platform/os/thread.h"

#include <atomic>
#include <cstdint>

enum class MEM_GATE_ROLE : int { mouse = 0, cat = 1 };

class MEM_CAPABILITY("gate") MEM_TRACKER_GATE {
  public:
    MEM_TRACKER_GATE() = default;
    MEM_TRACKER_GATE(const MEM_TRACKER_GATE&) = delete;
    MEM_TRACKER_GATE& operator=(const MEM_TRACKER_GATE&) = delete;

    // Returns when the caller is inside. Use the two guards below: they carry the lock annotations.
    void enter(MEM_GATE_ROLE role) {
        mem_rank_acquire(MEM_LOCK_RANK::gate);
        if (role == MEM_GATE_ROLE::cat)
            return wait_as_cat();
        std::atomic<std::int32_t>& mice = own_mice();
        os_add(mice, 1, std::memory_order_seq_cst);
        if (has_cats()) [[unlikely]]
            give_way_to_cats(mice);
    }
    void leave(MEM_GATE_ROLE role) {
        if (role == MEM_GATE_ROLE::cat) {
            end_cat();
        } else {
            MEM_CHECK(cats == 0);
            const std::int32_t mice = os_add(own_mice(), -1, std::memory_order_seq_cst);
            MEM_CHECK(mice >= 0);
        }
        mem_rank_release(MEM_LOCK_RANK::gate);
    }
    // Enters as a cat unless that takes longer than timeout_ms. The end of the process can't wait for ever.
    bool enter_as_cat_within(unsigned timeout_ms) MEM_TRY_ACQUIRE(true);
    void leave_as_cat() MEM_RELEASE() MEM_NO_THREAD_SAFETY_ANALYSIS { leave(MEM_GATE_ROLE::cat); }
    // Empties the gate whoever was inside: for a forked child, whose other threads are gone.
    void reset();

  private:
    static constexpr unsigned PLACES = 16;

    std::atomic<std::int32_t>& own_mice() { return m_mice[os_thread_id() % PLACES]; }
    bool has_cats() const { return catsApproaching.load() != 0 || cats.load() != 0; }
    bool has_mice() const;
    void give_way_to_cats(std::atomic<std::int32_t>& mice);
    void wait_as_cat();
    bool try_enter_cat();
    void end_announcement();
    void end_cat();

    MEM_ATOMIC_ON_OWN_LINE<std::int32_t> m_mice[PLACES]{};
    alignas(MEM_CACHE_LINE) std::atomic<std::int32_t> catsApproaching{0};
    std::atomic<std::int32_t> cats{0};            // inside
    std::atomic<std::int32_t> m_cats_in_front{0}; // the one that looks for mice, or is inside
};

class MEM_SCOPED_CAPABILITY MEM_GATE_MOUSE {
  public:
    explicit MEM_GATE_MOUSE(MEM_TRACKER_GATE& gate) MEM_ACQUIRE_SHARED(gate) : m_gate(gate) {
        m_gate.enter(MEM_GATE_ROLE::mouse);
    }
    ~MEM_GATE_MOUSE() MEM_RELEASE_GENERIC() { m_gate.leave(MEM_GATE_ROLE::mouse); }
    MEM_GATE_MOUSE(const MEM_GATE_MOUSE&) = delete;
    MEM_GATE_MOUSE& operator=(const MEM_GATE_MOUSE&) = delete;

  private:
    MEM_TRACKER_GATE& m_gate;
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
