// The executable tag of a preloaded program.
#pragma once

#include <string>
#include <string_view>

// The pattern with "%e" replaced by the program's name, "%p" by the process id and "%%" by a percent sign;
// any other text stands as it is, slashes as underscores because the tag is part of a file name.
std::string mem_expand_tag(std::string_view pattern, std::string_view program_name, int process_id);
