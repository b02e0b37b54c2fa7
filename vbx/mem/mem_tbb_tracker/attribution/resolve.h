// From a code address to the names of a site.
#pragma once

#include <vbx/mem/trackers.h>

// Fills file_name, line, function_name and module_name of a record whose address is set and whose other
// fields are zero. What the debug-symbol service doesn't know stays empty; nothing is reported. Takes the
// symbol lock for the whole of the record's queries: call it with the site lock not held, on any thread.
void mem_resolve_address(MEM_ADDRESS_TRACKER& record);

// For the child of a fork: the symbol lock may have been held by a thread that it doesn't have.
void mem_reset_symbol_lock();
