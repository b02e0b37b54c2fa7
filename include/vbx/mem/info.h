// What the operating system says that this process and the machine use. Independent of the tracking.
//
// None fails towards its caller: when the system doesn't answer, a current figure is 0 and a peak its last
// known value, and the figures of the process send the system's error text through the debug message slot.
// The system keeps few peaks, so the library keeps them: a peak is the highest figure that any call of this
// family has seen, in this process or in the one it was forked from, and where the system knows a higher one,
// that.
//
// Each call reads a file of the kernel, which takes some ten microseconds; nothing is cached. Any thread, any
// time, no lock. docs/memory-figures.md says where each figure comes from.
#pragma once

#include <vbx/mem/export.h>

#include <cstdint>

// Memory of the process that is in physical memory.
// Returns bytes
VBX_MEM_API std::uint64_t mem_info_get_process_current_working_set_size();
VBX_MEM_API std::uint64_t mem_info_get_process_peak_working_set_size();

// Memory of the process that needs room of its own in memory or swap: private and writable, touched or not.
// Returns bytes
VBX_MEM_API std::uint64_t mem_info_get_process_current_page_file_used();
VBX_MEM_API std::uint64_t mem_info_get_process_peak_page_file_used();

// Returns the page faults of the process so far; starts over after 2^32
VBX_MEM_API std::uint64_t mem_info_get_process_page_fault_count();

// Address space of the process that is in use. With the configuration key
// mem_report_peak_virtual_memory_from_os the peak is mem_info_get_process_peak_page_file_used() instead, and
// each call says so through the debug message slot. The system's error text is not sent for these two.
// Returns bytes
VBX_MEM_API std::uint64_t mem_info_get_process_current_virtual_used();
VBX_MEM_API std::uint64_t mem_info_get_process_peak_virtual_used();

// The machine's physical memory that programs have not got free to take. No messages, as with the next two.
// Returns bytes
VBX_MEM_API std::uint64_t mem_info_get_system_current_physical_in_use();
VBX_MEM_API std::uint64_t mem_info_get_system_peak_physical_in_use();

// The same of physical memory and swap together.
// Returns bytes
VBX_MEM_API std::uint64_t mem_info_get_system_current_page_file_in_use();
VBX_MEM_API std::uint64_t mem_info_get_system_peak_page_file_in_use();

// Opens what the figures of the process need, if that isn't open. The figures do it by themselves; when it
// fails it sends a message, and they don't try again.
VBX_MEM_API void mem_info_init();
// Gives it back. The next call of a figure opens it again; the peaks stay.
VBX_MEM_API void mem_info_close();
