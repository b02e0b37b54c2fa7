#include "vbx/mem/debug_aids/allocation_log.h"

#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/host/messages.h"
#include "vbx/mem/mem_tbb_tracker/events/callback_table.h"
#include "vbx/mem/out_of_memory/host_call.h"
#include "vbx/platform/os/append_file.h"

#include <vbx/mem/debug_aids.h>

#include <cstdio>
#include <cstring>

namespace {

constexpr const char* LOG_NAME = "mem_allocations.log";

constinit OS_APPEND_FILE allocation_log;

// strerror would translate, for which it may allocate.
const char* text_of(int error) {
    const char* const text = strerrordesc_np(error);
    return text != nullptr ? text : "unknown error";
}

void start_log() {
    if (const int error = allocation_log.open(LOG_NAME); error != 0)
        mem_warn("%s can't be opened: %s. Allocations are not logged", LOG_NAME, text_of(error));
    else
        mem_table_add(mem_log_handler);
}

} // namespace

void mem_log_handler(void* block, std::uint64_t requested_size, std::uint64_t allocated_size,
                     bool is_allocation) {
    std::uint8_t& guard = mem_thread_state.log_guard_byte;
    if (guard == 0)
        return;
    guard = 0;
    char line[160];
    const int length =
        std::snprintf(line, sizeof line, "ptr=%p, requested_size =%llu, allocated_size=%lli, type=%s\n",
                      block, static_cast<unsigned long long>(requested_size),
                      static_cast<long long>(allocated_size), is_allocation ? "alloc" : "free");
    if (length > 0)
        allocation_log.append(line, static_cast<std::size_t>(length));
    guard = 1;
}

void mem_set_print_allocations_callback_enabled(bool on) try {
    if (on)
        start_log();
    else
        mem_table_remove(mem_log_handler);
} catch (const std::bad_alloc&) {
    mem_fail_host_call();
}

void mem_stop_allocation_log() {
    allocation_log.stop();
}

void mem_close_allocation_log(bool (*events_have_ended)()) {
    if (!allocation_log.is_open())
        return;
    mem_table_remove(mem_log_handler);
    allocation_log.stop();
    if (events_have_ended())
        allocation_log.close();
}
