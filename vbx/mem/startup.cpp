// The static objects of the library that come up with it, all of them, in the order that they need.

#include "vbx/mem/code_module_list.h"
#include "vbx/mem/mem_tbb_tracker/events/event_totals.h"
#include "vbx/mem/mem_tbb_tracker/state/counters.h"
#include "vbx/platform/os/process.h"

#include <vbx/mem/initializer.h>

namespace {

// The first of the process: the loader initialises this library before all others. At process end its
// destructor runs behind those of all modules that depend on the library.
MEM_INITIALIZER own_initializer("MEM");

// Its destructor runs at process end in front of that of the initialiser above.
struct CODE_MODULE_LISTING {
    ~CODE_MODULE_LISTING() { mem_list_code_modules(); }
};
CODE_MODULE_LISTING code_module_listing;

// What the tracker counted since its hook went on is set back to 0; the process begins here.
struct COUNTERS_FROM_ZERO {
    COUNTERS_FROM_ZERO() {
        mem_global_stats() = MEM_STATS();
        mem_event_totals.set_total(0);
        mem_timeline_index().store(0);
    }
};
COUNTERS_FROM_ZERO counters_from_zero;

// The last of this library's: from here on other modules' initialisers run.
struct END_OF_START {
    END_OF_START() { os_other_initialisers_begin(); }
};
END_OF_START end_of_start;

} // namespace
