// An allocator of oneTBB's that the sanitizers can follow. In other builds nothing is left of it.
//
// oneTBB's heaps are not instrumented. So ThreadSanitizer doesn't see that a node which one thread gives back
// and another one gets has changed hands in between, and takes the two uses for a race: the hand-over is
// told. LeakSanitizer doesn't look for pointers where a pool keeps those to its raw memory, and takes an
// empty pool for a leak: it is told to leave that memory alone.
#pragma once

#include <cstddef>

#if defined(__SANITIZE_THREAD__)
extern "C" void __tsan_acquire(void* address);
extern "C" void __tsan_release(void* address);
inline void mem_note_memory_obtained(void* block) {
    __tsan_acquire(block);
}
inline void mem_note_memory_given_back(void* block) {
    __tsan_release(block);
}
#else
inline void mem_note_memory_obtained(void*) {}
inline void mem_note_memory_given_back(void*) {}
#endif

#if defined(__SANITIZE_ADDRESS__)
extern "C" void __lsan_ignore_object(const void* object);
inline void mem_note_memory_of_pool(const void* memory) {
    __lsan_ignore_object(memory);
}
#else
inline void mem_note_memory_of_pool(const void*) {}
#endif

// INNER  template of the allocator; what is given to the constructor goes to it
template <template <class> class INNER, class T>
class MEM_ANNOTATED_ALLOCATOR {
  public:
    using value_type = T;
    template <class U>
    struct rebind {
        using other = MEM_ANNOTATED_ALLOCATOR<INNER, U>;
    };

    explicit MEM_ANNOTATED_ALLOCATOR(const INNER<T>& inner = INNER<T>()) : m_inner(inner) {}
    template <class U>
    MEM_ANNOTATED_ALLOCATOR(const MEM_ANNOTATED_ALLOCATOR<INNER, U>& other) : m_inner(other.inner()) {}

    // Throws std::bad_alloc.
    T* allocate(std::size_t count) {
        T* const block = m_inner.allocate(count);
        mem_note_memory_obtained(block);
        return block;
    }
    void deallocate(T* block, std::size_t count) {
        mem_note_memory_given_back(block);
        m_inner.deallocate(block, count);
    }

    const INNER<T>& inner() const { return m_inner; }
    template <class U>
    bool operator==(const MEM_ANNOTATED_ALLOCATOR<INNER, U>& other) const {
        return m_inner == other.inner();
    }

  private:
    INNER<T> m_inner;
};
