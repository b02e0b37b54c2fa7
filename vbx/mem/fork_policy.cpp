// What a fork does to the library.
//
// The child has one thread, a copy of the one that forked, and all memory as it stood at that moment. It
// stops tracking: its hook is off, its mask 0. It writes no report, because the parent's would be overwritten
// by it, and none of the debug lines that end a process. It holds no lock of the library, so every exported
// operation still returns.
//
// That the child can use its heap at all, and that no thread was in the middle of an event when the memory
// was copied, is the allocator shim's work: it keeps all other threads out of the allocator, events included,
// while the process forks. The alternative, to go on tracking in the child under another tag, was left: the
// tables would tell of blocks of the parent, and most children only run another program.
//
// Not covered: a thread that is stuck inside an event for seconds (a host callback that waits). The fork goes
// ahead then; the locks are reset all the same and the tracker's objects are never touched again in the
// child.

#include "vbx/mem/fork_policy.h"

#include "vbx/mem/allocator_information.h"
#include "vbx/mem/base/library_lock.h"
#include "vbx/mem/base/lock_rank.h"
#include "vbx/mem/base/long_operation.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/out_of_memory/out_of_memory.h"
#include "vbx/mem/tracker.h"
#include "vbx/platform/os/address_space.h"
#include "vbx/platform/os/thread.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <pthread.h>

namespace {

void leave_tracking_to_the_parent() {
    os_forget_thread_id();
    mem_rank_forget_all();
    mem_thread_state.in_tracker_byte = 0;
    mem_library_lock.reset_after_fork();
    mem_reset_long_operations_after_fork();
    mem_abandon_tracker_after_fork();
    mem_silence_debug_lines_after_fork();
    mem_leave_last_steps_to_the_parent();
    os_forget_address_space_file_after_fork();
}

} // namespace

void mem_install_fork_policy() {
    // Before our own handlers, so that the gate goes up behind our prepare handler.
    tbbk_guard_forks();
    pthread_atfork(mem_hold_long_operations, mem_release_long_operations, leave_tracking_to_the_parent);
}
