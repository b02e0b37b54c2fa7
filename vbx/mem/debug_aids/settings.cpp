#include "vbx/mem/debug_aids/settings.h"

#include "vbx/mem/debug_aids/breakpoint.h"
#include "vbx/mem/debug_aids/double_free_check.h"
#include "vbx/mem/host/messages.h"
#include "vbx/mem/mem_tbb_tracker/events/callback_table.h"

#include <vbx/mem/debug_aids.h>
#include <vbx/mem/host.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>

namespace {

enum class PARSED { number, nothing_usable };

// White space, a sign and, in base 16, "0x" in front of the number are passed over; so is all behind it.
PARSED parse_int(const std::string& text, int base, int& number) {
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, base);
    if (end == text.c_str() || errno == ERANGE || value < INT_MIN || value > INT_MAX)
        return PARSED::nothing_usable;
    number = static_cast<int>(value);
    return PARSED::number;
}

bool read_pattern(const char* key, int base, void (*set_pattern)(int)) {
    const std::string value = mem_cfg_get_value(key);
    if (value.empty())
        return false;
    int pattern = 0;
    if (parse_int(value, base, pattern) != PARSED::number) {
        mem_warn("%s: %.100s can't be used, no pattern is set by it", key, value.c_str());
        return false;
    }
    set_pattern(pattern);
    return true;
}

bool start_if_on(const char* key, void (*start)()) {
    const bool is_on = mem_cfg_is_on(key, false);
    if (is_on)
        start();
    return is_on;
}

} // namespace

bool mem_read_debug_aid_settings() {
    bool any = read_pattern("mem_alloc_pattern", 10, mem_set_alloc_pattern);
    any |= read_pattern("mem_alloc_pattern_hex", 16, mem_set_alloc_pattern);
    any |= read_pattern("mem_free_pattern", 10, mem_set_free_pattern);
    any |= read_pattern("mem_free_pattern_hex", 16, mem_set_free_pattern);
    any |= start_if_on("mem_print_allocations", [] { mem_set_print_allocations_callback_enabled(true); });
    any |= start_if_on("mem_check_double_free", mem_start_double_free_check);
    any |= start_if_on("mem_breakpoint_callback", [] { mem_table_add(mem_breakpoint_handler); });
    return any;
}
