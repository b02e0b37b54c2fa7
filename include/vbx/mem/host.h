// The services that a host lends the library (configuration, paths, messages), and the library's queries that
// go through them. The library works without any: configuration then comes from the configuration library, if
// that is in the process, or from the environment; paths are empty; messages go to standard output.
//
// The switches of tracking are read when the library comes up, before any host can fill a slot and before a
// configuration library that the host is linked with has been constructed: at that moment the environment
// answers. (A library that is loaded into a running process with a configuration library does ask it.)
//
// A host fills the slots at its own start-up, from one thread. Each setter stores its pointer; null takes the
// slot back to the default. Any thread may ask; a query throws what the host's callback throws, and
// std::bad_alloc.
#pragma once

#include <vbx/mem/export.h>

#include <cstdarg>
#include <string>

// A variable-argument list as a message callback receives it: `va_list` in its parameter form.
using MEM_MESSAGE_ARGUMENTS = std::va_list;

// What a host puts into the slots. Arguments and result are those of the library's function that asks the
// slot. A value goes back through `value`, which comes empty or 0; a text stays the host's.
using MEM_MESSAGE_CALLBACK = bool (*)(const char* tag, const char* format, MEM_MESSAGE_ARGUMENTS args);
using MEM_CFG_IS_ON_CALLBACK = bool (*)(const char* name, bool default_value);
using MEM_CFG_GET_VALUE_CALLBACK = void (*)(const char* name, std::string* value);
using MEM_CFG_GET_INT_VALUE_CALLBACK = void (*)(const char* name, int* value, int default_value);
using MEM_STRING_CALLBACK = std::string (*)();
using MEM_BOOL_CALLBACK = bool (*)();
using MEM_TEXT_CALLBACK = const char* (*)();

// Fills a slot.
// callback  what the library asks from now on, on any thread; null for the default
VBX_MEM_API void mem_set_msg_local_vdebug_callback(MEM_MESSAGE_CALLBACK callback);
VBX_MEM_API void mem_set_msg_local_vinfo_callback(MEM_MESSAGE_CALLBACK callback);
VBX_MEM_API void mem_set_cfg_is_on_callback(MEM_CFG_IS_ON_CALLBACK callback);
VBX_MEM_API void mem_set_cfg_get_value_callback(MEM_CFG_GET_VALUE_CALLBACK callback);
VBX_MEM_API void mem_set_cfg_get_int_value_callback(MEM_CFG_GET_INT_VALUE_CALLBACK callback);
VBX_MEM_API void mem_set_gen_get_tarvane_path_callback(MEM_STRING_CALLBACK callback);
VBX_MEM_API void mem_set_gen_get_db_dir_path_string_callback(MEM_STRING_CALLBACK callback);
VBX_MEM_API void mem_set_gen_get_is_ui_process_callback(MEM_BOOL_CALLBACK callback);
VBX_MEM_API void mem_set_gen_get_module_filename_callback(MEM_STRING_CALLBACK callback);
VBX_MEM_API void mem_set_gen_get_project_output_directory_callback(MEM_TEXT_CALLBACK callback);

// The configuration, whose keys are names of environment variables where neither a slot nor a configuration
// library answers.

// name           the key
// default_value  the answer to all that is neither "on" nor "1" (true), "off" nor "0" (false), in any case of
//                letters
// Returns whether the key is on
VBX_MEM_API bool mem_cfg_is_on(const char* name, bool default_value);
// name  the key
// Returns the whole value; empty when there is none
VBX_MEM_API std::string mem_cfg_get_value(const char* name);
// name           the key
// default_value  for the host's callback, and used nowhere else
// Returns the number at the beginning of the value; 0 when there is none
VBX_MEM_API int mem_cfg_get_int_value(const char* name, int default_value);

// Returns what the host's callback says; empty without one
VBX_MEM_API std::string mem_gen_get_tarvane_path();
VBX_MEM_API std::string mem_gen_get_db_dir_path_string();
VBX_MEM_API std::string mem_gen_get_module_filename();
// Returns what the host's callback says; false without one
VBX_MEM_API bool mem_gen_get_is_ui_process();
// Returns what the host's callback says, its text and not a copy; "" without one
VBX_MEM_API const char* mem_gen_get_project_output_directory();

// Sends a message to the host's callback; without one "TAG: ", the text and a newline to standard output.
// tag     who sends it
// format  as for printf, without a newline
// args    its arguments; consumed
// Returns what the host's callback says; true without one
VBX_MEM_API bool mem_msg_local_vdebug(const char* tag, const char* format, MEM_MESSAGE_ARGUMENTS args);
VBX_MEM_API bool mem_msg_local_vinfo(const char* tag, const char* format, MEM_MESSAGE_ARGUMENTS args);

// For hosts: the library neither reads nor writes it.
class MSG_INTERFACE;
VBX_MEM_API extern MSG_INTERFACE* msg_interface;
