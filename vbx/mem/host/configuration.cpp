// Configuration queries: the host's slot, else the configuration library of the suite, else the environment.
//
// The configuration library is only ever found in the process, never loaded. Each of its three functions is
// looked up once, at the first query of its kind, and what the lookup gave stays: the function in the slot,
// or nothing for good.

#include "vbx/mem/host/host_slots.h"
#include "vbx/platform/os/process.h"
#include "vbx/platform/vbx_thr/vbx_thr.h"

#include <strings.h>

#include <atomic>
#include <cstdlib>

namespace {

constexpr const char* CONFIGURATION_LIBRARY = "libvbx_cfg_ini.so";

// One flag a function: set until its one lookup.
constinit std::atomic<bool> is_on_unsearched{true};
constinit std::atomic<bool> get_value_unsearched{true};
constinit std::atomic<bool> get_int_value_unsearched{true};

template <class CALLBACK>
CALLBACK resolve(CALLBACK& slot, std::atomic<bool>& unsearched, const char* function_name) {
    const CALLBACK callback = mem_load_slot(slot);
    if (callback != nullptr || !unsearched.load(std::memory_order_relaxed))
        return callback;
    OS_LIBRARY library;
    const bool is_in_process = os_find_library(CONFIGURATION_LIBRARY, library);
    // While this library starts before all others, the configuration library may be in the process with none
    // of its objects constructed. It can't be asked yet, and it isn't missing either: the lookup stays due.
    if (is_in_process && os_is_before_other_initialisers())
        return nullptr;
    if (!unsearched.exchange(false, std::memory_order_relaxed))
        return mem_load_slot(slot);
    void* const found = thr_drl_find_function(is_in_process ? &library : nullptr, function_name);
    mem_store_slot(slot, reinterpret_cast<CALLBACK>(found));
    return mem_load_slot(slot);
}

const char* from_environment(const char* name) {
    return name != nullptr ? std::getenv(name) : nullptr;
}

bool is_one_of(const char* value, const char* word, const char* digit) {
    return strcasecmp(value, word) == 0 || strcasecmp(value, digit) == 0;
}

} // namespace

bool mem_cfg_is_on(const char* name, bool default_value) {
    if (const auto ask = resolve(mem_host_slots.cfg_is_on, is_on_unsearched, "cfg_dyn_is_on"))
        return ask(name, default_value);
    const char* const value = from_environment(name);
    if (value == nullptr)
        return default_value;
    if (is_one_of(value, "on", "1"))
        return true;
    if (is_one_of(value, "off", "0"))
        return false;
    return default_value;
}

std::string mem_cfg_get_value(const char* name) {
    std::string result;
    if (const auto ask = resolve(mem_host_slots.cfg_get_value, get_value_unsearched, "cfg_dyn_get_value"))
        ask(name, &result);
    else if (const char* const value = from_environment(name))
        result = value;
    return result;
}

int mem_cfg_get_int_value(const char* name, int default_value) {
    int result = 0;
    if (const auto ask =
            resolve(mem_host_slots.cfg_get_int_value, get_int_value_unsearched, "cfg_dyn_get_int_value"))
        ask(name, &result, default_value);
    else if (const char* const value = from_environment(name))
        result = std::atoi(value);
    return result;
}
