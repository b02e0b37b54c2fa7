#include "vbx/mem/mem_tbb_tracker/attribution/frame_filter.h"

#include <strings.h>

#include <algorithm>
#include <initializer_list>
#include <string_view>

namespace {

bool begins_with_one_of(std::string_view text, std::initializer_list<std::string_view> prefixes) {
    return std::ranges::any_of(prefixes,
                               [text](std::string_view prefix) { return text.starts_with(prefix); });
}

// The paths of this platform use slashes, so these tests hit nothing here; they are for the debug information
// of sources that were compiled elsewhere. Paths are never converted.
bool source_is_filtered(std::string_view file_name) {
    const std::size_t separator = file_name.rfind('\\');
    if (separator == std::string_view::npos)
        return false;
    const std::string_view base_name = file_name.substr(separator + 1);
    return begins_with_one_of(base_name, {"kvs_", "mem_"}) || base_name == "kit_utils" ||
           base_name == "plc_zk_mem_interface" || base_name == "tbb_concurrent_hash_map_sys";
}

} // namespace

bool mem_frame_is_filtered(const MEM_ADDRESS_TRACKER& frame) {
    const std::string_view function_name = frame.function_name;
    const std::string_view module_name = frame.module_name;
    const std::string_view file_name = frame.file_name;
    if (function_name.empty() || file_name.empty() || module_name.empty())
        return true;
    return begins_with_one_of(function_name, {"std::", "mem_", "MEM_", "operator new", "KTL",
                                              "boost::", "tbb::", "ntl::"}) ||
           begins_with_one_of(module_name, {"vbx_mem", "tbb"}) ||
           strcasecmp(frame.module_name, "db_kvs") == 0 || file_name.starts_with("/rigs") ||
           source_is_filtered(file_name);
}
