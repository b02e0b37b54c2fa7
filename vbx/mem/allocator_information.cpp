#include "vbx/mem/allocator_information.h"

#include "vbx/mem/base/library_lock.h"
#include "vbx/mem/host/messages.h"
#include "vbx/mem/host/preload_seam.h"
#include "vbx/mem/mem_tbb_tracker/state/granularity.h"

#include <vbx/mem/host.h>

namespace {

constinit bool lines_are_late = false;
// Outlives the static object below: the listing of code modules asks for it, too.
constinit bool debug_messages_are_on = false;

void print_lines() {
    const MEM_STDOUT_AT_END standard_output;
    if (!standard_output.can_be_used())
        return;
    mem_print_stdout("Debug: MEM: Native allocator:          '%s'\n", "TBBmalloc");
    mem_print_stdout("Debug: MEM: Allocator used by Tarvane: '%s'\n", "TBBmalloc");
}

struct ALLOCATOR_INFORMATION {
    ALLOCATOR_INFORMATION() { debug_messages_are_on = mem_cfg_is_on("debug_msg", false); }

    ~ALLOCATOR_INFORMATION() {
        if (!debug_messages_are_on)
            return;
        const bool reports_will_come = mem_tracker_objects_exist.load(std::memory_order_relaxed);
        // Elsewhere the tracker's objects are still there because an initialiser is never destroyed.
        if (reports_will_come && mem_preload_print != nullptr)
            lines_are_late = true;
        else
            print_lines();
    }
};

} // namespace

void mem_keep_allocator_information() {
    const MEM_LIBRARY_GUARD guard;
    static ALLOCATOR_INFORMATION information;
}

bool mem_debug_messages_are_on() {
    return debug_messages_are_on;
}

void mem_silence_debug_lines_after_fork() {
    debug_messages_are_on = false;
    lines_are_late = false;
}

void mem_print_kept_allocator_information() {
    if (lines_are_late)
        print_lines();
}
