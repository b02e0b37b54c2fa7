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
    TBBK_THREAD_WORDS* words = tbbk_next_thread_words(nullptr);
    while (words != nullptr && word_of(*words).load(std::memory_order_acquire) == 0)
        words = tbbk_next_thread_words(words);
    return words != nullptr;
}

void MEM_VISITORS::forget_others() {
    m_others.store(0, std::memory_order_relaxed);
    mem_for_each_thread_words([this, own = tbbk_thread_words()](TBBK_THREAD_WORDS& words) {
        if (&words != own)
            word_of(words).store(0, std::memory_order_relaxed);
    });
}
