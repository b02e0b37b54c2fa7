// The slots that hosts fill: plain pointers, null at load, no lock. A host fills them during its own
// start-up.
#pragma once

#include <vbx/mem/host.h>
#include <vbx/mem/out_of_memory.h>

struct MEM_HOST_SLOTS {
    MEM_MESSAGE_CALLBACK debug_message;
    MEM_MESSAGE_CALLBACK info_message;
    MEM_CFG_IS_ON_CALLBACK cfg_is_on;
    MEM_CFG_GET_VALUE_CALLBACK cfg_get_value;
    MEM_CFG_GET_INT_VALUE_CALLBACK cfg_get_int_value;
    MEM_STRING_CALLBACK tarvane_path;
    MEM_STRING_CALLBACK db_dir_path;
    MEM_BOOL_CALLBACK is_ui_process;
    MEM_STRING_CALLBACK module_filename;
    MEM_TEXT_CALLBACK project_output_directory;
    MEM_OUT_OF_MEMORY_HANDLER out_of_memory; // mem_set_out_of_memory_handler does more than fill it
};

// Read a slot with mem_load_slot: a host thread may fill one while another thread asks.
inline constinit MEM_HOST_SLOTS mem_host_slots{};

template <class CALLBACK>
CALLBACK mem_load_slot(const CALLBACK& slot) {
    return __atomic_load_n(&slot, __ATOMIC_ACQUIRE);
}

template <class CALLBACK>
void mem_store_slot(CALLBACK& slot, CALLBACK callback) {
    __atomic_store_n(&slot, callback, __ATOMIC_RELEASE);
}
