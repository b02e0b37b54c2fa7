// A stand-in for the configuration library of the suite.
#include <string>

#pragma GCC visibility push(default)
extern "C" bool cfg_dyn_is_on(const char* name, bool default_value) {
    return std::string(name) == "probe_on" || default_value;
}
extern "C" void cfg_dyn_get_value(const char* name, std::string* value) {
    if (std::string(name) == "probe")
        *value = "library";
}
extern "C" void cfg_dyn_get_int_value(const char*, int* value, int default_value) {
    *value = 40 + default_value;
}
#pragma GCC visibility pop
