#include "vbx/mem/base/visitors.h"

#include "vbx/platform/os/one_thread.h"

// The read-modify-write of any word is a full fence on this processor, and ThreadSanitizer understands it.
void MEM_VISITORS::full_fence() {
    m_others.fetch_add(0);
}

void MEM_VISITORS::fence() {
    if (!os_has_one_thread())
        tbbk_fence_all_threads();
}

bool MEM_VISITORS::any() const {
    if (m_others.load() != 0)
        return true;
    bool is_one_inside = false;
    mem_for_each_thread_words([&](TBBK_THREAD_WORDS& words) {
        is_one_inside = is_one_inside || word_of(words).load(std::memory_order_acquire) != 0;
    });
    return is_one_inside;
}

void MEM_VISITORS::forget_all() {
    m_others.store(0, std::memory_order_relaxed);
    mem_for_each_thread_words(
        [this](TBBK_THREAD_WORDS& words) { word_of(words).store(0, std::memory_order_relaxed); });
}
