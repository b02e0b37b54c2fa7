// The tag in the names of the report files.
#pragma once

#include <string>

// From tracker start to teardown; null outside.
inline constinit std::string* mem_tbb_exe_string = nullptr;

void mem_create_executable_tag();
void mem_destroy_executable_tag();

// prefix, tag, ".log": the name of a report file.
std::string mem_report_file_name(const char* prefix);
