#include "vbx/mem/host/host_slots.h"

MSG_INTERFACE* msg_interface = nullptr;

void mem_set_msg_local_vdebug_callback(MEM_MESSAGE_CALLBACK callback) {
    mem_store_slot(mem_host_slots.debug_message, callback);
}
void mem_set_msg_local_vinfo_callback(MEM_MESSAGE_CALLBACK callback) {
    mem_store_slot(mem_host_slots.info_message, callback);
}
void mem_set_cfg_is_on_callback(MEM_CFG_IS_ON_CALLBACK callback) {
    mem_store_slot(mem_host_slots.cfg_is_on, callback);
}
void mem_set_cfg_get_value_callback(MEM_CFG_GET_VALUE_CALLBACK callback) {
    mem_store_slot(mem_host_slots.cfg_get_value, callback);
}
void mem_set_cfg_get_int_value_callback(MEM_CFG_GET_INT_VALUE_CALLBACK callback) {
    mem_store_slot(mem_host_slots.cfg_get_int_value, callback);
}
void mem_set_gen_get_tarvane_path_callback(MEM_STRING_CALLBACK callback) {
    mem_store_slot(mem_host_slots.tarvane_path, callback);
}
void mem_set_gen_get_db_dir_path_string_callback(MEM_STRING_CALLBACK callback) {
    mem_store_slot(mem_host_slots.db_dir_path, callback);
}
void mem_set_gen_get_is_ui_process_callback(MEM_BOOL_CALLBACK callback) {
    mem_store_slot(mem_host_slots.is_ui_process, callback);
}
void mem_set_gen_get_module_filename_callback(MEM_STRING_CALLBACK callback) {
    mem_store_slot(mem_host_slots.module_filename, callback);
}
void mem_set_gen_get_project_output_directory_callback(MEM_TEXT_CALLBACK callback) {
    mem_store_slot(mem_host_slots.project_output_directory, callback);
}

std::string mem_gen_get_tarvane_path() {
    const MEM_STRING_CALLBACK callback = mem_load_slot(mem_host_slots.tarvane_path);
    return callback != nullptr ? callback() : std::string();
}

std::string mem_gen_get_db_dir_path_string() {
    const MEM_STRING_CALLBACK callback = mem_load_slot(mem_host_slots.db_dir_path);
    return callback != nullptr ? callback() : std::string();
}

std::string mem_gen_get_module_filename() {
    const MEM_STRING_CALLBACK callback = mem_load_slot(mem_host_slots.module_filename);
    return callback != nullptr ? callback() : std::string();
}

bool mem_gen_get_is_ui_process() {
    const MEM_BOOL_CALLBACK callback = mem_load_slot(mem_host_slots.is_ui_process);
    return callback != nullptr && callback();
}

const char* mem_gen_get_project_output_directory() {
    const MEM_TEXT_CALLBACK callback = mem_load_slot(mem_host_slots.project_output_directory);
    return callback != nullptr ? callback() : "";
}
