// The allocator shim: the malloc family of the process over tbbmalloc, with one hook.
//
// libtbbamalloc.so interposes malloc, calloc, realloc, free and their relatives. Beyond forwarding it does
// three things: it reports every allocation and free to one callback on the calling thread, it keeps the new
// mode and the new handler, and it knows which threads are inside one of its entry points, so that fork and
// teardown can wait for them. There is no bookkeeping of blocks here.
//
// Every function may be called from any thread and before any constructor has run.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

// block          start of the block
// requested_size bytes the caller asked for; 0 in a free event, because nothing knows it then
// allocated_size bytes of the slot that the block lies in. An aligned block need not begin its slot, so these
//                can be more than its usable bytes. Above 8128 the block has pages of its own, which it may
//                use to this size. The same in both events of a block
// is_allocation  true behind a successful allocation, false before the block goes back
using tbbk_mem_tracker_callback = void (*)(void* block, std::uint64_t requested_size,
                                           std::uint64_t allocated_size, bool is_allocation);

// Called with the size that could not be had; non-zero means "memory was freed, try again".
using tbbk_new_handler = int (*)(std::size_t size);

// Called with a block that the program gives back, before the heap has looked at it: a block that was given
// back before may not even be mapped any more. Inside an allocator call, like the hook.
using tbbk_free_check = void (*)(const void* block);

// Called with a block that the program gives back, before anything of it is read: while the heap looks for
// its size, whoever keeps a record of the block can have it fetched. What it is called with may be no live
// block, or none of this heap. It may do nothing but read memory that stays while threads are inside of
// allocator calls: it is not kept apart from the thread's own code as the hook is (errno, the entry frame).
using tbbk_free_notice = void (*)(const void* block);

// Words of one thread for who owns the hook; the shim keeps them and never looks at them. All 0 at first.
// When the thread ends they stay as they are, and a later thread takes them over with the place.
struct TBBK_THREAD_WORDS {
    std::atomic<std::uint32_t> counts[4];
    std::atomic<std::int64_t> amounts[2];
};

#pragma GCC visibility push(default)
extern "C" {

// Installs the one hook, or removes it with null. Each allocator call reads the hook once, so a call already
// under way still reports to the hook that it read; tbbk_quiesce_begin waits for those.
void tbbk_set_mem_tracker_callback(tbbk_mem_tracker_callback callback) noexcept;

// Installs the one check of frees and reallocations, or removes it with null. It is only called while a hook
// is installed.
void tbbk_set_free_check(tbbk_free_check check) noexcept;

// Installs the one notice of frees, or removes it with null. It too is only called while a hook is installed,
// and not for reallocations.
void tbbk_set_free_notice(tbbk_free_notice notice) noexcept;

// Memory that no figure shows: without an event and without the new handler, so null when there is none. For
// what the library needs outside of events, a few bytes a thread. Given back by the second of the two, which
// takes null too.
void* tbbk_obtain_quietly(std::size_t size) noexcept;
void tbbk_give_back_quietly(void* block) noexcept;

// Whether the process's `malloc` really is the shim's. False means that no event will ever arrive: the shim
// is not a direct dependency of the executable and not preloaded, so another malloc stands before it in the
// search order. Takes the loader's lock: never call it from the hook.
bool tbbk_process_malloc_is_shim() noexcept;

// Keeps all other threads out of the shim's entry points: raises a gate at which they wait, then waits until
// no other thread is inside one, its hook call included. The calling thread itself may go on allocating.
// timeout_ms  longest time to wait for threads to leave
// Returns true when no other thread is inside; false when the time ran out, the gate then stays up all the
// same. Every call must be followed by tbbk_quiesce_end on the same thread. Calls nest.
bool tbbk_quiesce_begin(unsigned timeout_ms) noexcept;
void tbbk_quiesce_end() noexcept;

// Registers the fork handlers that put the gate around fork; the shim's constructor does it too. A library
// that registers fork handlers of its own calls this first, so that the gate closes behind its prepare
// handler and opens before its child handler. Calls after the first do nothing.
void tbbk_guard_forks() noexcept;

// The stack address where the frame of the innermost running allocator entry point of this thread ends (its
// canonical frame address), while the hook runs; null outside the hook. The word below it is the entry
// point's return address, so a stack walk that drops every frame below it begins with the caller of malloc.
const void* tbbk_entry_frame() noexcept;

// How many entry points of the shim this thread is inside of (0 outside).
unsigned tbbk_entry_depth() noexcept;

// The words of the calling thread, which no other living thread has: the same from the beginning of an
// allocator call to its end, hook call included. Null when there was no memory for them.
TBBK_THREAD_WORDS* tbbk_thread_words() noexcept;

// All words that a thread has or had, in no order: the first for null, null behind the last. Some 64 at
// least.
TBBK_THREAD_WORDS* tbbk_next_thread_words(TBBK_THREAD_WORDS* previous) noexcept;

// A full fence on every running thread of the process, at whatever instruction it stands. Costs a system
// call, and this one needs no fence on their side: so who does something often can do it without one, if the
// other side does its part seldom.
void tbbk_fence_all_threads() noexcept;

// True where the system has no such fence, or forbids it from some moment on: both sides need one then.
extern std::atomic<bool> tbbk_threads_need_fences;

// Usable size in bytes of a block from this allocator or of a foreign one; 0 for null.
std::size_t _msize(void* block) noexcept;

// Mode 1: a failing malloc calls the new handler and tries again while that returns non-zero. Mode 0 (at
// load): it returns null. Gives the old mode; any other argument changes nothing and gives -1.
int _set_new_mode(int mode) noexcept;

// Sets the handler of mode 1, null for none; gives the old one. (The C++ library's own new handler is not
// touched: operator new calls malloc first and runs its own loop after that.)
tbbk_new_handler _set_new_handler(tbbk_new_handler handler) noexcept;
}
#pragma GCC visibility pop
