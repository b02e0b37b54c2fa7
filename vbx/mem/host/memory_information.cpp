// The figures of the operating system, with the peaks that it doesn't keep.

#include "vbx/mem/host/host_slots.h"
#include "vbx/mem/host/memory_source.h"
#include "vbx/mem/host/messages.h"

#include <vbx/mem/host.h>
#include <vbx/mem/info.h>

#include <algorithm>
#include <cstring>

namespace {

using PROCESS_QUERY = int (*)(OS_PROCESS_MEMORY& memory);

// Null until the source has been opened, and again after mem_info_close. The source needs nothing that would
// have to be given back, so a thread that still calls a function which another one closes comes to no harm.
constinit std::atomic<PROCESS_QUERY> process_query{nullptr};

// The errno with which the source could not be opened. Opening is not tried again then.
constinit std::atomic<int> open_error{0};

struct PEAKS {
    std::atomic<std::uint64_t> working_set{0};
    std::atomic<std::uint64_t> page_file{0};
    std::atomic<std::uint64_t> process_virtual{0};
    std::atomic<std::uint64_t> system_physical{0};
    std::atomic<std::uint64_t> system_page_file{0};
};
constinit PEAKS peaks;

// Makes the peak at least the figure; gives the peak.
std::uint64_t raise_to(std::atomic<std::uint64_t>& peak, std::uint64_t figure) {
    std::uint64_t seen = peak.load(std::memory_order_relaxed);
    while (figure > seen && !peak.compare_exchange_weak(seen, figure, std::memory_order_relaxed)) {
    }
    return std::max(seen, figure);
}

// Not strerror: it translates, for which it may read files and allocate, and this can be inside an event.
void send_error_text(int error) {
    const char* const text = strerrordesc_np(error);
    mem_msg_debug("%s", text != nullptr ? text : "Unknown error");
}

// Gives the query function, or null behind a message. Two threads that open at once both do it, to the same
// end.
PROCESS_QUERY open_source() {
    const MEM_MEMORY_SOURCE* const source = mem_memory_source.load(std::memory_order_relaxed);
    const int error = source->open();
    if (error == 0) {
        process_query.store(source->read_process, std::memory_order_relaxed);
        return source->read_process;
    }
    open_error.store(error, std::memory_order_relaxed);
    // This text names what other systems load for it and stays, for hosts and logs that know it.
    mem_msg_debug("Loading psapi.dll failed with:");
    send_error_text(error);
    return nullptr;
}

// All figures 0 when the system doesn't answer, and a message then.
OS_PROCESS_MEMORY query_or_say_why_not() {
    OS_PROCESS_MEMORY memory;
    if (const int error = mem_query_process_memory(memory); error != 0)
        send_error_text(error);
    return memory;
}

// Of address space and machine: no opening, no message, 0 when the system doesn't answer.
std::uint64_t virtual_size() {
    std::uint64_t bytes = 0;
    mem_memory_source.load(std::memory_order_relaxed)->read_address_space(bytes);
    return bytes;
}

OS_SYSTEM_MEMORY system_memory() {
    OS_SYSTEM_MEMORY memory;
    mem_memory_source.load(std::memory_order_relaxed)->read_system(memory);
    return memory;
}

// The two figures are read one after the other, so what is available can come out above the total.
std::uint64_t in_use(std::uint64_t total, std::uint64_t available) {
    return total > available ? total - available : 0;
}

} // namespace

void mem_info_init() {
    if (process_query.load(std::memory_order_relaxed) == nullptr)
        open_source();
}

void mem_info_close() {
    process_query.store(nullptr, std::memory_order_relaxed);
}

int mem_query_process_memory(OS_PROCESS_MEMORY& memory) {
    PROCESS_QUERY query = process_query.load(std::memory_order_relaxed);
    if (query == nullptr && open_error.load(std::memory_order_relaxed) == 0)
        query = open_source();
    return query != nullptr ? query(memory) : open_error.load(std::memory_order_relaxed);
}

std::uint64_t mem_info_get_process_current_working_set_size() {
    const std::uint64_t current = query_or_say_why_not().working_set;
    raise_to(peaks.working_set, current);
    return current;
}

// The current figure is asked for first and by itself. So a system that doesn't answer is heard of twice.
std::uint64_t mem_info_get_process_peak_working_set_size() {
    mem_info_get_process_current_working_set_size();
    return raise_to(peaks.working_set, query_or_say_why_not().peak_working_set);
}

std::uint64_t mem_info_get_process_current_page_file_used() {
    const std::uint64_t current = query_or_say_why_not().committed;
    raise_to(peaks.page_file, current);
    return current;
}

std::uint64_t mem_info_get_process_peak_page_file_used() {
    mem_info_get_process_current_page_file_used();
    return raise_to(peaks.page_file, query_or_say_why_not().peak_committed);
}

std::uint64_t mem_info_get_process_page_fault_count() {
    return query_or_say_why_not().page_faults;
}

std::uint64_t mem_info_get_process_current_virtual_used() {
    const std::uint64_t current = virtual_size();
    raise_to(peaks.process_virtual, current);
    return current;
}

std::uint64_t mem_raise_peak_address_space() {
    return raise_to(peaks.process_virtual, virtual_size());
}

namespace {

// Asked at every call: hosts turn it on while they run.
bool peak_is_overridden() {
    return mem_cfg_is_on("mem_report_peak_virtual_memory_from_os", false);
}

std::uint64_t overriding_peak(std::uint64_t peak) {
    const std::uint64_t peak_page_file = mem_info_get_process_peak_page_file_used();
    mem_msg_debug(
        "Overriding old peak memory calculation (%lu bytes) with OS peak pagefile usage (%lu bytes)", peak,
        peak_page_file);
    return peak_page_file;
}

} // namespace

std::uint64_t mem_info_get_process_peak_virtual_used() {
    const std::uint64_t peak = mem_raise_peak_address_space();
    return peak_is_overridden() ? overriding_peak(peak) : peak;
}

std::uint64_t mem_peak_virtual_used_at_end() {
    const std::uint64_t peak = mem_raise_peak_address_space();
    // With nothing held: a host's callback may wait for a thread that prints.
    if (!peak_is_overridden())
        return peak;
    if (mem_load_slot(mem_host_slots.debug_message) != nullptr)
        return overriding_peak(peak);
    const MEM_STDOUT_AT_END standard_output;
    return standard_output.can_be_used() ? overriding_peak(peak) : peak;
}

std::uint64_t mem_info_get_system_current_physical_in_use() {
    const OS_SYSTEM_MEMORY memory = system_memory();
    const std::uint64_t current = in_use(memory.physical_total, memory.physical_available);
    raise_to(peaks.system_physical, current);
    return current;
}

std::uint64_t mem_info_get_system_peak_physical_in_use() {
    return raise_to(peaks.system_physical, mem_info_get_system_current_physical_in_use());
}

std::uint64_t mem_info_get_system_current_page_file_in_use() {
    const OS_SYSTEM_MEMORY memory = system_memory();
    const std::uint64_t current = in_use(memory.page_file_total, memory.page_file_available);
    raise_to(peaks.system_page_file, current);
    return current;
}

std::uint64_t mem_info_get_system_peak_page_file_in_use() {
    return raise_to(peaks.system_page_file, mem_info_get_system_current_page_file_in_use());
}
