// The two figures that every event moves: the tick that says which event is a sample, and the total of
// tracked bytes that the threshold peak is looked for in.
//
// Both are exact, but hardly ever is it asked what they are: a tick matters when it is a multiple of the
// period, the total when it may be a new peak. So while a figure is far from where it matters, threads borrow
// of it in lots and use these up by themselves:
//
//     ticks 130 * 64, lent to A 12, to B 40               52 events may still come that can't be samples
//     total 5'000'000, lent to A 65'000, to B 10'000      the true total is 4'925'000
//
//     shared word = true figure + what is lent
//
// What is lent is never negative. So the shared total is never below the true one: when it is no new peak,
// the true one is none. Near the next sample or peak nothing is lent, and where it would be what is lent is
// called back: each event moves the shared words then, exactly. A process with one thread always does.
#pragma once

#include "vbx/mem/base/cache_line.h"
#include "vbx/mem/base/tracker_gate.h"
#include "vbx/mem/mem_tbb_tracker/state/settings.h"
#include "vbx/platform/os/one_thread.h"

#include <atomic>
#include <cstdint>
#include <limits>

class MEM_EVENT_TOTALS {
  public:
    constexpr MEM_EVENT_TOTALS() = default;

    // One event: a tick, and the bytes that it brings or, negative, takes. Gives whether it is a sample: the
    // first is, and each that comes a multiple of the period behind it. Inside an event only.
    // words  of the calling thread; it may do without them
    [[gnu::always_inline]] bool pass(TBBK_THREAD_WORDS* words, std::int64_t bytes) {
        if (os_has_one_thread() && !is_lent()) {
            os_add(mem_tracked_total_bytes, bytes);
            return is_sample(os_add(mem_sample_counter, std::uint64_t{1}) - 1);
        }
        return (words == nullptr || !pass_with_lent(*words, bytes)) && pass_among_threads(words, bytes);
    }

    // Not below the total, and it where nothing is lent.
    std::int64_t highest_possible_total() const {
        return mem_tracked_total_bytes.load(std::memory_order_relaxed);
    }

    // These call back what is lent first. They wait for events that pass, so not with a leaf held.
    std::int64_t total();
    std::uint64_t ticks();
    void set_total(std::int64_t total);
    void add_tick(); // one that is no event

    // To be told what became of a possible peak, so that no two threads lend and call back by turns there:
    // the total was none, and little below it nothing is lent; or one was recorded, and the next is far.
    void stop_lending_near(std::int64_t total);
    void lend_up_to_next_peak() { m_lends_below.store(NO_LIMIT, std::memory_order_relaxed); }

    // Threads that pass are its mice, who calls back is its cat.
    MEM_TRACKER_GATE gate{MEM_VISITED::event_totals, MEM_LOCK_RANK::leaf};

  private:
    enum class TICK { plain, sample, not_known };
    static constexpr std::uint64_t LOT_OF_TICKS = 64;
    static constexpr std::int64_t LOT_OF_BYTES = 64 << 10;
    // How far from a sample or from a peak the shared figure is where something is lent.
    static constexpr std::uint64_t FAR_TICKS = 1024;
    static constexpr std::int64_t FAR_BYTES = 1 << 20;
    static constexpr std::int64_t NO_LIMIT = std::numeric_limits<std::int64_t>::max();

    // Without a division where the period is a power of two, as it usually is.
    static std::uint64_t beyond_multiple(std::uint64_t tick, std::uint64_t period) {
        return (period & (period - 1)) == 0 ? tick & (period - 1) : tick % period;
    }
    static bool is_sample(std::uint64_t tick) {
        return beyond_multiple(tick, mem_snapshot_period.load(std::memory_order_relaxed)) == 0;
    }
    static std::atomic<std::int64_t>& lent_ticks(TBBK_THREAD_WORDS& words) { return words.amounts[0]; }
    static std::atomic<std::int64_t>& lent_bytes(TBBK_THREAD_WORDS& words) { return words.amounts[1]; }
    // Whether a thread that has so many can move the total within them.
    static bool covers(std::int64_t lent, std::int64_t bytes) {
        return bytes == 0 || (lent != 0 && lent - bytes > 0 && lent - bytes <= 2 * LOT_OF_BYTES);
    }
    // False, with nothing done, when what the thread has is not enough.
    [[gnu::always_inline]] bool pass_with_lent(TBBK_THREAD_WORDS& words, std::int64_t bytes) {
        constexpr auto relaxed = std::memory_order_relaxed;
        const MEM_GATE_MOUSE mover(gate, &words);
        const std::int64_t ticks = lent_ticks(words).load(relaxed);
        const std::int64_t lent = lent_bytes(words).load(relaxed);
        if (ticks == 0 || !covers(lent, bytes))
            return false;
        lent_ticks(words).store(ticks - 1, relaxed);
        lent_bytes(words).store(lent - bytes, relaxed);
        return true;
    }
    bool pass_among_threads(TBBK_THREAD_WORDS* words, std::int64_t bytes);
    TICK take_tick(TBBK_THREAD_WORDS* words);
    void move_total(TBBK_THREAD_WORDS* words, std::int64_t bytes);
    bool is_lent() const {
        return m_are_ticks_lent.load(std::memory_order_relaxed) ||
               m_are_bytes_lent.load(std::memory_order_relaxed);
    }
    void call_back() MEM_REQUIRES(gate);

    // On one line, which an event that moves both has to get from the other threads once.
    alignas(MEM_CACHE_LINE) std::atomic<std::uint64_t> mem_sample_counter{0};
    std::atomic<std::int64_t> mem_tracked_total_bytes{0};
    // Whether any thread may have some.
    std::atomic<bool> m_are_ticks_lent{false};
    std::atomic<bool> m_are_bytes_lent{false};
    std::atomic<std::int64_t> m_lends_below{NO_LIMIT};
};

inline constinit MEM_EVENT_TOTALS mem_event_totals;
