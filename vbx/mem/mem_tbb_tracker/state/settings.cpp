#include "vbx/mem/mem_tbb_tracker/state/settings.h"

#include "vbx/mem/host/messages.h"

#include <vbx/mem/host.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <string>

namespace {

// The peak rules double a total and add a step to it; both have to stay inside a signed 64-bit number. No
// total comes near it, so a larger threshold means the same.
constexpr std::uint64_t LARGEST_THRESHOLD = std::uint64_t{1} << 62;

std::uint64_t parse_key(const std::string& value) {
    errno = 0;
    char* end = nullptr;
    const std::uint64_t number = std::strtoull(value.c_str(), &end, 10);
    if (end == value.c_str())
        throw std::invalid_argument("invalid stoull argument");
    if (errno == ERANGE)
        throw std::out_of_range("stoull argument out of range");
    return number;
}

std::uint64_t read_setting(const char* variable, const char* key, std::uint64_t default_value,
                           std::uint64_t largest) {
    const char* const text = std::getenv(variable);
    std::uint64_t number = text != nullptr ? std::strtoull(text, nullptr, 10) : 0;
    const char* source = variable;
    if (number == 0)
        number = default_value;
    if (const std::string value = mem_cfg_get_value(key); !value.empty()) {
        number = parse_key(value);
        source = key;
    }
    // Both settings are divisors on the event path, so what can't divide must not get there.
    if (number >= 1 && number <= largest)
        return number;
    mem_warn("%s: %llu can't be used, taking %llu", source, static_cast<unsigned long long>(number),
             static_cast<unsigned long long>(default_value));
    return default_value;
}

} // namespace

void mem_read_settings() {
    mem_snapshot_period =
        read_setting("TARVANE_MEM_PROFILE_LIBRARY_SNAPSHOT_PERIOD", "mem_profile_library_snapshot_period",
                     MEM_DEFAULT_SNAPSHOT_PERIOD, UINT64_MAX);
    const std::uint64_t threshold =
        read_setting("TARVANE_MEM_PROFILE_FILELINE_PEAK_SNAPSHOT_THRESHOLD",
                     "mem_profile_fileline_peak_snapshot_threshold",
                     static_cast<std::uint64_t>(MEM_DEFAULT_FILELINE_PEAK_THRESHOLD), INT64_MAX);
    mem_fileline_peak_threshold = static_cast<std::int64_t>(std::min(threshold, LARGEST_THRESHOLD));
}
