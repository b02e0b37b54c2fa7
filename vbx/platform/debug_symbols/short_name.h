// Short names of modules, and the rule that goes by them.
#pragma once

#include <string>
#include <string_view>

// Base name of `path`; a shared library loses everything from its ".so" on, with a version or without, and
// then a leading "lib", an executable keeps its name but for ".exe" ("python3.11" has no extension here). Any
// thread.
std::string sym_short_module_name(std::string_view path);

// Whether the module is part of the C or C++ runtime or of a sanitizer. What such a module says about lines
// would hang on the debug packages that happen to be installed. Any thread.
bool sym_is_runtime_module(std::string_view short_name);
