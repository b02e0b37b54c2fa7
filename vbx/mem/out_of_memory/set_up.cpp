#include "vbx/mem/out_of_memory/set_up.h"

#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/out_of_memory/host_call.h"
#include "vbx/mem/out_of_memory/report_room.h"
#include "vbx/platform/os/address_space.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"
#include "vbx/platform/vbx_thr/vbx_thr.h"

#include <vbx/mem/info.h>
#include <vbx/mem/out_of_memory.h>

#include <atomic>

namespace {

constinit std::atomic<bool> is_asked_for{false};
constinit std::atomic<bool> is_installed{false};

// Inside the library a failed allocation is caught and costs a figure or a report. An exit from there would
// meet the locks that this thread holds.
int end_unless_inside_library(std::size_t bytes) {
    if (mem_thread_is_inside_library())
        return mem_give_report_room(bytes) ? 1 : 0;
    mem_out_of_memory();
}

} // namespace

bool mem_out_of_memory_end_is_asked_for() {
    return is_asked_for.load(std::memory_order_relaxed);
}

bool mem_out_of_memory_end_is_installed() {
    return is_installed.load(std::memory_order_relaxed);
}

void mem_ask_for_out_of_memory_end() {
    is_asked_for.store(true, std::memory_order_relaxed);
    mem_install_out_of_memory_end();
}

void mem_install_out_of_memory_end() {
    is_installed.store(true, std::memory_order_relaxed);
    // A failing malloc goes the way of a failing operator new, which ends in malloc here.
    _set_new_mode(1);
    _set_new_handler(end_unless_inside_library);
    thr_set_new_handler(mem_out_of_memory);
}

// (Standard error has no buffer here that a first print would have to make, and a print would fix whether the
// stream is wide: the host's choice.)
void mem_warm_up_last_steps() {
    os_keep_address_space_file();
    mem_info_get_process_peak_virtual_used();
}

void mem_fail_host_call() {
    if (mem_out_of_memory_end_is_installed() && !mem_thread_is_inside_library())
        mem_out_of_memory();
    throw;
}
