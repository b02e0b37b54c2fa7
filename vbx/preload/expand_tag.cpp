#include "vbx/preload/expand_tag.h"

#include <algorithm>

std::string mem_expand_tag(std::string_view pattern, std::string_view program_name, int process_id) {
    std::string tag;
    for (std::size_t index = 0; index < pattern.size(); ++index) {
        const char next = index + 1 < pattern.size() ? pattern[index + 1] : '\0';
        if (pattern[index] != '%' || (next != 'e' && next != 'p' && next != '%')) {
            tag += pattern[index];
            continue;
        }
        if (next == 'e')
            tag += program_name;
        else if (next == 'p')
            tag += std::to_string(process_id);
        else
            tag += '%';
        ++index;
    }
    std::ranges::replace(tag, '/', '_');
    return tag;
}
