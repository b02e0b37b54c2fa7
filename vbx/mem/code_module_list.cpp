#include "vbx/mem/code_module_list.h"

#include "vbx/mem/allocator_information.h"
#include "vbx/mem/base/thread_state.h"
#include "vbx/mem/host/messages.h"
#include "vbx/mem/host/preload_seam.h"
#include "vbx/mem/out_of_memory/host_call.h"
#include "vbx/platform/os/thread.h"
#include "vbx/platform/os/write.h"

#include <vbx/mem/code_modules.h>

#include <cstdio>
#include <set>
#include <string>
#include <utility>

namespace {
// By module, then by workload, in byte order.
using REGISTRY = std::set<std::pair<std::string, std::string>>;

// Made by the first registration and never freed: modules come and go while others register, and the list is
// read as the process ends.
constinit REGISTRY* registry = nullptr;
} // namespace

void mem_register_dll_for_pgo(const char* module, const char* pgo_workload) try {
    if (module == nullptr || pgo_workload == nullptr)
        return;
    // What the registry holds would stand in every leak report of its host.
    const MEM_BLOCK_SCOPE own_heap_use;
    if (registry == nullptr)
        registry = new REGISTRY;
    registry->emplace(module, pgo_workload);
} catch (const std::bad_alloc&) {
    mem_fail_host_call();
}

// The lines go to the stream that std::cout writes through, not to std::cout itself: a host may have put a
// buffer of its own into that, which is gone by now, and a program without C++ streams gets none from us.
// Line by line with a flush: another exit handler may close the output.
void mem_list_code_modules() {
    if (!mem_debug_messages_are_on() || registry == nullptr)
        return;
    const MEM_STDOUT_AT_END standard_output;
    if (!standard_output.can_be_used())
        return;
    const OS_NO_CANCELLATION no_cancellation;
    const OS_NO_WRITE_SIGNALS no_signals;
    for (const auto& [module, workload] : *registry) {
        mem_print_stdout("Debug: PGO: The code module %s was last compiled using PGO for:%s\n",
                         module.c_str(), workload.c_str());
        if (mem_preload_print == nullptr)
            std::fflush(stdout);
    }
}
