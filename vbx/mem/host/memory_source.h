// Where the figures of the operating system come from, and their one query that other parts of the library
// use.
//
//     source --mem_info_init--> query function --mem_info_close--> none --next query--> query function
//        \---- can't be opened --> failed, for good
#pragma once

#include "vbx/platform/os/address_space.h"
#include "vbx/platform/os/process_memory.h"
#include "vbx/platform/os/system_memory.h"

#include <atomic>

// Each gives 0, or the errno that says why there are no figures; its argument is untouched then. All are
// called from any thread, also inside events.
struct MEM_MEMORY_SOURCE {
    int (*open)();
    int (*read_process)(OS_PROCESS_MEMORY& memory);
    int (*read_address_space)(std::uint64_t& bytes);
    int (*read_system)(OS_SYSTEM_MEMORY& memory);
};

inline constexpr MEM_MEMORY_SOURCE MEM_KERNEL_MEMORY_SOURCE{os_find_process_memory, os_read_process_memory,
                                                            os_read_address_space, os_read_system_memory};

// Another source, put here before the first query, answers in place of the kernel.
inline constinit std::atomic<const MEM_MEMORY_SOURCE*> mem_memory_source{&MEM_KERNEL_MEMORY_SOURCE};

// Reads the figures of the process; opens their source if that isn't open and has not failed to. Sends no
// message but that of the opening.
// memory  untouched when the result is not 0
// Returns 0, or the errno of the read or of the opening. Any thread, lock-free, no heap use; usable inside an
// event.
int mem_query_process_memory(OS_PROCESS_MEMORY& memory);

// Raises the stored peak of the address space to its present size and gives it, whatever the configuration
// says, without a message.
std::uint64_t mem_raise_peak_address_space();

// The same with the say of the configuration, like mem_info_get_process_peak_virtual_used; but where the
// message of that would have to wait for another thread that holds standard output, there is neither message
// nor override. Throws what a host's configuration callback throws.
std::uint64_t mem_peak_virtual_used_at_end();
