// Who is inside of something, counted without a locked instruction: each thread in a word of its own.
//
//     visitor, often                            keeper, seldom
//     own word += 1                             puts up a sign
//     (compiler barrier only)                   a fence on every running thread
//     looks for signs                           waits until all words are 0
//     own word -= 1                             takes the sign down
//
// Wherever the fence meets the visitor, either the keeper finds its word or it finds the sign. The words are
// the allocator shim's, which keeps some for each thread; visitors that it had no memory for share one.
#pragma once

#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <atomic>
#include <cstdint>

// Which of a thread's words counts the visits. (Its amounts belong to MEM_EVENT_TOTALS.)
enum class MEM_VISITED : unsigned { gate = 0, bin_and_tag_tables = 1, event_totals = 2 };

class MEM_VISITORS {
  public:
    constexpr explicit MEM_VISITORS(MEM_VISITED visited) : m_visited(visited) {}
    MEM_VISITORS(const MEM_VISITORS&) = delete;
    MEM_VISITORS& operator=(const MEM_VISITORS&) = delete;

    // Counts the calling thread in and out, both with its words. Visits nest. The second gives how often the
    // thread is still inside; negative when it wasn't.
    void count_in(TBBK_THREAD_WORDS* words) {
        if (words == nullptr) [[unlikely]] {
            m_others.fetch_add(1);
            return;
        }
        std::atomic<std::uint32_t>& count = word_of(*words);
        count.store(count.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
        if (tbbk_threads_need_fences.load(std::memory_order_relaxed)) [[unlikely]]
            full_fence();
        std::atomic_signal_fence(std::memory_order_seq_cst);
    }
    std::int32_t count_out(TBBK_THREAD_WORDS* words) {
        if (words == nullptr) [[unlikely]]
            return static_cast<std::int32_t>(m_others.fetch_sub(1) - 1);
        std::atomic<std::uint32_t>& count = word_of(*words);
        const std::uint32_t left = count.load(std::memory_order_relaxed) - 1;
        count.store(left, std::memory_order_release);
        return static_cast<std::int32_t>(left);
    }

    // For a keeper, behind its sign and before its first look.
    void fence();
    // Whether anybody is inside.
    bool any() const;
    // In a forked child: no other thread is inside, whoever was. The calling one may be, if a signal handler
    // forks, and will count itself out.
    void forget_others();

  private:
    std::atomic<std::uint32_t>& word_of(TBBK_THREAD_WORDS& words) const {
        return words.counts[static_cast<unsigned>(m_visited)];
    }
    void full_fence();

    const MEM_VISITED m_visited;
    std::atomic<std::uint32_t> m_others{0}; // visits of threads without words
};

// Calls visit(TBBK_THREAD_WORDS&) for the words of every thread, of those that have ended too.
template <class VISIT>
void mem_for_each_thread_words(VISIT visit) {
    for (TBBK_THREAD_WORDS* words = tbbk_next_thread_words(nullptr); words != nullptr;
         words = tbbk_next_thread_words(words))
        visit(*words);
}
