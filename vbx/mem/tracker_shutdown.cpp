// The end of tracking: the reports in their order, then the teardown.

#include "vbx/mem/base/long_operation.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/debug_aids/allocation_log.h"
#include "vbx/mem/debug_aids/double_free_check.h"
#include "vbx/mem/host/messages.h"
#include "vbx/mem/mem_tbb_tracker/attribution/attribute_stack.h"
#include "vbx/mem/mem_tbb_tracker/attribution/resolve.h"
#include "vbx/mem/mem_tbb_tracker/events/callback_table.h"
#include "vbx/mem/mem_tbb_tracker/events/gate.h"
#include "vbx/mem/mem_tbb_tracker/events/threshold_peak.h"
#include "vbx/mem/mem_tbb_tracker/records/address_map.h"
#include "vbx/mem/mem_tbb_tracker/records/block_shards.h"
#include "vbx/mem/mem_tbb_tracker/records/module_map.h"
#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker/records/site_table.h"
#include "vbx/mem/mem_tbb_tracker/reports/attempt_report.h"
#include "vbx/mem/mem_tbb_tracker/reports/leak_reports.h"
#include "vbx/mem/mem_tbb_tracker/reports/report_files.h"
#include "vbx/mem/mem_tbb_tracker/reports/timeline_files.h"
#include "vbx/mem/mem_tbb_tracker/state/executable_tag.h"
#include "vbx/mem/mem_tbb_tracker/state/granularity.h"
#include "vbx/mem/mem_tbb_tracker/state/switches.h"
#include "vbx/mem/mem_tbb_tracker/state/tracker_use.h"
#include "vbx/mem/mem_tbb_tracker/timelines/auxiliary_timeline.h"
#include "vbx/mem/mem_tbb_tracker/timelines/bin_tag_timeline.h"
#include "vbx/mem/mem_tbb_tracker/timelines/label_timeline.h"
#include "vbx/mem/mem_tbb_tracker/timelines/module_timeline.h"
#include "vbx/mem/out_of_memory/report_room.h"
#include "vbx/mem/tracker.h"
#include "vbx/platform/os/thread.h"
#include "vbx/platform/os/write.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"

#include <vbx/mem/reports.h>

namespace {

// How long the end of the process waits for other threads' events. An event takes microseconds, or some
// milliseconds when it opens a module's symbols; one that takes longer is stuck behind the host.
constexpr unsigned EVENTS_TIMEOUT_MS = 2000;
// And for their reports, which can be slow.
constexpr unsigned OPERATION_TIMEOUT_MS = 10'000;

// Set in the child of a fork: the reports are the parent's.
constinit std::atomic<bool> is_abandoned{false};

// Waits until no other thread is inside an event. With the hook off, none begins.
bool events_in_flight_have_ended() {
    const bool ended = tbbk_quiesce_begin(EVENTS_TIMEOUT_MS);
    tbbk_quiesce_end();
    return ended;
}

void clear_tracking_flags() {
    const std::uint32_t mask = mem_current_mask();
    if ((mask & MEM_GRANULARITY_PER_BIN) != 0)
        mem_set_tbb_memory_tracking_enabled(false);
    if ((mask & MEM_GRANULARITY_PER_BIN_DETAILED) != 0)
        mem_bin_tag_tracking_flag = false;
}

void write_site_reports() {
    MEM_REPORT_FILE fileline = mem_open_report(mem_report_file_name("mem_tbb_fileline."));
    mem_dump_tbb_fileline_tracking(fileline);
    MEM_REPORT_FILE subsystem = mem_open_report(mem_report_file_name("mem_tbb_subsystem."));
    mem_dump_tbb_subsystem_tracking(subsystem);
}

void write_leak_report() {
    const std::uint32_t mask = mem_current_mask();
    if ((mask & MEM_GRANULARITY_CHECK_LEAKS) != 0)
        mem_write_full_leak_report();
    else if ((mask & MEM_GRANULARITY_CHECK_LEAKS_FAST) != 0)
        mem_write_fast_leak_report();
}

// Everything that needs a tracker that stands still.
void write_reports() MEM_REQUIRES(*mem_tbb_gate) {
    mem_open_report_room();
    mem_attempt_report("the peak figures are", mem_tbb_apply_final_peak);
    if (mem_report_flags.fileline)
        mem_attempt_report("the site reports are", write_site_reports);
    mem_write_timeline_reports();
    mem_attempt_report("the leak report is", write_leak_report);
    // What is in the table beside the handler goes back on the hook. Without memory for the shorter table the
    // handler stays in it, and finds nothing to do.
    mem_attempt_report("the removal of the event handler is",
                       [] { mem_disable_tracking(MEM_GRANULARITY_ALL); });
    mem_clear_report_flags();
}

// exit() was called on a thread that is inside an event or a call of a host, in a callback or a signal
// handler for instance. It may hold the gate and any lock, so whatever follows could wait for itself.
bool thread_is_inside() {
    return mem_thread_state.in_tracker_byte != 0 ||
           (mem_thread_state.block_byte & MEM_BLOCKED_BY_OWN_WORK) != 0;
}

bool reports_are_due() {
    return mem_current_mask() != 0 || mem_any_report_is_due();
}

// The shutdown's turn among the long operations. A thread that is inside must not even wait for it: who has
// it may wait for this thread. And another thread's report may go into a stream that blocks.
class SHUTDOWN_TURN {
  public:
    bool is_inside() const { return m_is_inside; }

    // Whether reports can be written and events waited for.
    bool has_come() const {
        if (m_is_inside)
            return false;
        if (!m_operation.may_begin() && reports_are_due())
            mem_warn("no reports now: an operation on another thread does not end");
        return m_operation.may_begin();
    }

  private:
    static unsigned longest_wait(bool is_inside) {
        if (is_inside)
            return 0;
        return reports_are_due() ? OPERATION_TIMEOUT_MS : EVENTS_TIMEOUT_MS;
    }

    const bool m_is_inside = thread_is_inside();
    const MEM_LONG_OPERATION m_operation{longest_wait(m_is_inside)};
};

// No event comes from here on. On a thread that is inside, and may hold any lock, the log's handler stays in
// the callback table.
void stop_events(const SHUTDOWN_TURN& turn) {
    if (turn.is_inside())
        mem_stop_allocation_log();
    else
        mem_attempt_report("the end of the allocation log is",
                           [] { mem_close_allocation_log(events_in_flight_have_ended); });
    clear_tracking_flags();
    mem_pause_double_free_check();
    tbbk_set_mem_tracker_callback(nullptr);
}

// True when no event can be using the tracker's objects any more; so is the next.
bool write_reports_and_wait_for_events() {
    const OS_NO_WRITE_SIGNALS no_signals;
    const bool ended = events_in_flight_have_ended();
    if (!mem_tbb_gate->enter_as_cat_within(EVENTS_TIMEOUT_MS)) {
        mem_warn("no reports: an allocation on another thread does not end");
        return false;
    }
    write_reports();
    mem_tbb_gate->leave_as_cat();
    return ended;
}

bool shut_down(const SHUTDOWN_TURN& turn) {
    const bool can_go_on = turn.has_come();
    // Another thread that changes the callbacks puts a handler on the hook again. Events of this thread must
    // find it closed: they would wait at the gate for this thread itself.
    const MEM_BLOCK_SCOPE own_heap_use;
    stop_events(turn);
    return can_go_on && write_reports_and_wait_for_events();
}

bool tracker_is_there() {
    return mem_tbb_tracker_is_inited() && mem_tracker_objects_exist.load(std::memory_order_acquire) &&
           !is_abandoned.load(std::memory_order_relaxed);
}

void destroy_objects() {
    delete mem_bin_tag_timeline;
    delete ptag_stats;
    delete pbin_stats;
    delete mem_label_timeline;
    delete mem_tbb_block_shards;
    delete mem_module_timeline;
    delete mem_tbb_address_map;
    {
        const MEM_SPIN_GUARD guard(mem_site_lock);
        delete mem_tbb_site_table;
    }
    {
        const MEM_SPIN_GUARD guard(mem_module_lock);
        delete mem_tbb_module_map;
    }
    mem_destroy_executable_tag();
    mem_destroy_peak_snapshot();
}

} // namespace

// Writing files is where a pending cancellation strikes; a thread that ends its process must get to the end.

void mem_shutdown_tbb_tracking() {
    const OS_NO_CANCELLATION no_cancellation;
    if (!tracker_is_there())
        return;
    const SHUTDOWN_TURN turn;
    if (shut_down(turn))
        mem_resume_double_free_check(events_in_flight_have_ended);
}

void mem_tbb_tracker_teardown() {
    const OS_NO_CANCELLATION no_cancellation;
    if (!tracker_is_there())
        return;
    const SHUTDOWN_TURN turn;
    if (!shut_down(turn)) {
        // Somebody may be inside the objects for good. Leaking them at process end costs nothing.
        mem_end_tracker_use();
        return;
    }
    // From here on a late event does nothing, also one that reads the hook again because callbacks of the
    // host are left in the table.
    mem_end_tracker_use();
    mem_stop_double_free_check();
    if (events_in_flight_have_ended())
        mem_destroy_free_marks();
    if (events_in_flight_have_ended() && mem_tracker_uses_have_ended(EVENTS_TIMEOUT_MS))
        destroy_objects();
}

namespace {
void free_timelines_after_fork() {
    if (mem_module_timeline != nullptr)
        mem_module_timeline->section.reset_after_fork();
    if (mem_label_timeline != nullptr)
        mem_label_timeline->lock.reset();
    if (mem_bin_tag_timeline != nullptr)
        mem_bin_tag_timeline->section.reset_after_fork();
    if (mem_auxiliary_timeline != nullptr)
        mem_auxiliary_timeline->reset_lock_after_fork();
}
} // namespace

void mem_abandon_tracker_after_fork() {
    is_abandoned.store(true, std::memory_order_relaxed);
    mem_drop_tracking_after_fork();
    mem_forget_double_free_check_after_fork();
    mem_tracker_objects_exist.store(false, std::memory_order_relaxed);
    mem_clear_report_flags();
    mem_memory_tracking_flag = false;
    mem_bin_tag_tracking_flag = false;
    mem_reset_state_locks();
    mem_reset_symbol_lock();
    mem_site_lock.reset();
    mem_module_lock.reset();
    for (MEM_PB_STATS_TABLE* const table : {pbin_stats, ptag_stats})
        if (table != nullptr)
            table->reset_lock();
    for (MEM_TRACKER_GATE* const gate : {mem_tbb_gate, &mem_pb_stats_gate, &mem_event_totals.gate})
        gate->reset();
    mem_forget_tracker_uses();
    free_timelines_after_fork();
}
