#include "vbx/platform/tbbamalloc/thread_slot.h"

#include "vbx/platform/tbbamalloc/quiesce.h"
#include "vbx/platform/tbbamalloc/start.h"
#include "vbx/platform/tbbamalloc/thread_end.h"

#include <errno.h>
#include <signal.h>
#include <stddef.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <type_traits>

namespace {

constexpr std::size_t static_slots = 64;
constexpr std::size_t chunk_slots = 1023;

// In the place of an owner's tid while its slot is being given back. No thread has this number.
constexpr std::uint32_t nobodys_mark = 0xFFFF'FFFF;

struct CHUNK {
    std::atomic<CHUNK*> next;
    std::size_t count;
    TBBK_SLOT* slots;
};

// The first slots need no mmap: most processes never have more threads.
constinit TBBK_SLOT first_slots[static_slots] = {};
constinit CHUNK first_chunk = {{nullptr}, static_slots, first_slots};

// Handed out when no memory for slots can be had. The walk never meets it.
constinit TBBK_SLOT shared_slot = {};

static_assert(std::is_trivially_destructible_v<TBBK_SLOT> && std::is_trivially_destructible_v<CHUNK>);
static_assert(sizeof(TBBK_SLOT) >= sizeof(CHUNK), "a mapped chunk keeps its head in the place of one slot");

std::uint32_t current_tid() noexcept {
    return static_cast<std::uint32_t>(syscall(SYS_gettid));
}

// A slot that still carries the caller's tid belonged to a thread that died with the same number.
TBBK_SLOT* claim_in_chunk(CHUNK& chunk, std::uint32_t tid) noexcept {
    for (std::size_t i = 0; i != chunk.count; ++i) {
        TBBK_SLOT& slot = chunk.slots[i];
        std::uint32_t seen = slot.tid.load(std::memory_order_relaxed);
        if (seen == tid || (seen == 0 && slot.tid.compare_exchange_strong(seen, tid)))
            return &slot;
    }
    return nullptr;
}

// Threads that free memory after their last key destructor take a slot which nothing gives back. Once all
// slots are taken those are collected: one system call a slot, before each growth only.
std::size_t collect_dead_slots() noexcept {
    std::size_t collected = 0;
    for (TBBK_SLOT* slot = tbbk_slot_next(nullptr); slot != nullptr; slot = tbbk_slot_next(slot)) {
        if (tbbk_slot_collect_if_dead(*slot))
            ++collected;
    }
    return collected;
}

bool append_chunk(CHUNK& last) noexcept {
    void* const memory = mmap(nullptr, (chunk_slots + 1) * sizeof(TBBK_SLOT), PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return false;
    // Zero pages are valid slots: all free.
    CHUNK* const chunk = static_cast<CHUNK*>(memory);
    chunk->count = chunk_slots;
    chunk->slots = static_cast<TBBK_SLOT*>(memory) + 1;
    CHUNK* none = nullptr;
    if (!last.next.compare_exchange_strong(none, chunk))
        munmap(memory, (chunk_slots + 1) * sizeof(TBBK_SLOT));
    return true;
}

TBBK_SLOT* claim(std::uint32_t tid) noexcept {
    std::size_t total = 0;
    for (CHUNK* chunk = &first_chunk;;) {
        if (TBBK_SLOT* const slot = claim_in_chunk(*chunk, tid))
            return slot;
        total += chunk->count;
        CHUNK* next = chunk->next.load(std::memory_order_acquire);
        if (next == nullptr) {
            // Few dead ones found: the next threads would sweep in vain again, so grow as well.
            const std::size_t collected = collect_dead_slots();
            const bool is_grown = collected < total / 2 && append_chunk(*chunk);
            if (collected == 0 && !is_grown)
                return nullptr;
            next = collected != 0 ? &first_chunk : chunk->next.load(std::memory_order_acquire);
            total = 0;
        }
        chunk = next;
    }
}

// The slots in turn, free ones too.
TBBK_SLOT* next_place(TBBK_SLOT* slot) noexcept {
    CHUNK* chunk = &first_chunk;
    if (slot == nullptr)
        return chunk->slots;
    while (slot < chunk->slots || slot >= chunk->slots + chunk->count)
        chunk = chunk->next.load(std::memory_order_acquire);
    if (++slot != chunk->slots + chunk->count)
        return slot;
    CHUNK* const next = chunk->next.load(std::memory_order_acquire);
    return next != nullptr ? next->slots : nullptr;
}

} // namespace

__thread TBBK_SLOT* tbbk_own_slot = nullptr;

TBBK_SLOT& tbbk_slot_acquire() noexcept {
    const int saved_errno = errno;
    // The first thread of the process comes by here with its first allocation, before any constructor that
    // could register fork handlers or create thread-specific keys.
    tbbk_start();
    TBBK_SLOT* slot = claim(current_tid());
    // A signal handler may have taken a slot for this thread meanwhile; that one is in use already.
    if (tbbk_own_slot != nullptr && tbbk_own_slot != slot) {
        if (slot != nullptr)
            tbbk_slot_release(*slot);
        slot = tbbk_own_slot;
    } else if (slot == nullptr) {
        slot = tbbk_own_slot = &shared_slot;
    } else {
        slot->depth.store(0, std::memory_order_relaxed);
        slot->parked.store(0, std::memory_order_relaxed);
        tbbk_quiesce_drop(*slot, slot->tid.load(std::memory_order_relaxed)); // left by a dead namesake
        // Published before the keys are set: pthread_setspecific allocates for high key numbers.
        tbbk_own_slot = slot;
        tbbk_thread_end_arm(*slot);
    }
    errno = saved_errno;
    return *slot;
}

void tbbk_slot_leave(TBBK_SLOT& slot) noexcept {
    // A signal handler that allocates in the middle of this finds the slot, or another, but never one that is
    // about to become another thread's.
    tbbk_quiesce_drop(slot, slot.tid.exchange(nobodys_mark));
    std::atomic_signal_fence(std::memory_order_seq_cst);
    tbbk_own_slot = nullptr;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    tbbk_slot_release(slot);
}

void tbbk_slot_release(TBBK_SLOT& slot) noexcept {
    // Nobody else would ever lower that gate, and the whole process would wait at it.
    tbbk_quiesce_drop(slot, slot.tid.load(std::memory_order_relaxed));
    slot.depth.store(0, std::memory_order_release);
    slot.tid.store(0, std::memory_order_release);
}

bool tbbk_slot_collect_if_dead(TBBK_SLOT& slot) noexcept {
    std::uint32_t tid = slot.tid.load(std::memory_order_acquire);
    // tkill and not tgkill: a task that shares this memory need not be of this thread group.
    if (tid == 0 || syscall(SYS_tkill, tid, 0) == 0 || errno != ESRCH)
        return false;
    // By one collector only: behind its release the slot may be a living thread's.
    const std::uint32_t dead_tid = tid;
    if (slot.tid.compare_exchange_strong(tid, nobodys_mark)) {
        tbbk_quiesce_drop(slot, dead_tid);
        tbbk_slot_release(slot);
    }
    return true;
}

TBBK_SLOT* tbbk_slot_next(TBBK_SLOT* slot) noexcept {
    do {
        slot = next_place(slot);
    } while (slot != nullptr && slot->tid.load(std::memory_order_acquire) == 0);
    return slot;
}

TBBK_THREAD_WORDS* tbbk_thread_words() noexcept {
    TBBK_SLOT& slot = tbbk_slot_own();
    return &slot != &shared_slot ? &slot.words : nullptr;
}

TBBK_THREAD_WORDS* tbbk_next_thread_words(TBBK_THREAD_WORDS* previous) noexcept {
    TBBK_SLOT* slot = nullptr;
    if (previous != nullptr)
        slot = reinterpret_cast<TBBK_SLOT*>(reinterpret_cast<char*>(previous) - offsetof(TBBK_SLOT, words));
    slot = next_place(slot);
    return slot != nullptr ? &slot->words : nullptr;
}

bool tbbk_slots_keep_only(TBBK_SLOT& own) noexcept {
    bool was_one_inside = false;
    for (TBBK_SLOT* slot = tbbk_slot_next(nullptr); slot != nullptr; slot = tbbk_slot_next(slot)) {
        if (slot == &own)
            continue;
        const bool is_inside = slot->depth.load(std::memory_order_relaxed) != 0;
        was_one_inside = was_one_inside || (is_inside && slot->parked.load(std::memory_order_relaxed) == 0);
        slot->raises = 0;
        slot->parked.store(0, std::memory_order_relaxed);
        tbbk_slot_release(*slot);
    }
    own.tid.store(current_tid(), std::memory_order_relaxed);
    return was_one_inside;
}
