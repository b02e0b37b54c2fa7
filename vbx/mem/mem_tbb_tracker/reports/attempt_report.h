// One report of the process end, which must not take the others or the process with it.
#pragma once

#include "vbx/mem/host/messages.h"

#include <exception>

// Calls step(). What it throws is told in one line, "`what` missing: ...", and goes no further: the reports
// are written inside static destructors, where an exception would end the process in another way than its
// own.
template <class STEP>
void mem_attempt_report(const char* what, STEP step) {
    try {
        step();
    } catch (const std::exception& failure) {
        mem_warn("%s missing: %s", what, failure.what());
    } catch (...) {
        mem_warn("%s missing", what);
    }
}
