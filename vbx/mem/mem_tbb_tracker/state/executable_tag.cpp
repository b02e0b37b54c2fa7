#include "vbx/mem/mem_tbb_tracker/state/executable_tag.h"

#include "vbx/mem/base/check.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/out_of_memory/host_call.h"

#include <vbx/mem/reports.h>

void mem_create_executable_tag() {
    mem_tbb_exe_string = new std::string("tvx");
}

void mem_destroy_executable_tag() {
    delete mem_tbb_exe_string;
    mem_tbb_exe_string = nullptr;
}

void mem_set_tbb_exe_string(const char* exe_string) try {
    MEM_CHECK(exe_string != nullptr);
    MEM_CHECK(mem_tbb_exe_string != nullptr);
    // The text before was allocated untracked, so its free must not be seen either.
    const MEM_BLOCK_SCOPE own_heap_use;
    *mem_tbb_exe_string = exe_string;
} catch (const std::bad_alloc&) {
    mem_fail_host_call();
}

std::string mem_report_file_name(const char* prefix) {
    MEM_CHECK(mem_tbb_exe_string != nullptr);
    return prefix + *mem_tbb_exe_string + ".log";
}
