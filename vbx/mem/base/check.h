// Internal checks: they guard invariants, not input, and a broken one ends the process.
#pragma once

#include "vbx/platform/vbx_err/vbx_err.h"

#define MEM_CHECK(condition)                                                                                 \
    do {                                                                                                     \
        if (!(condition)) [[unlikely]]                                                                       \
            err_report_internal_error(#condition, "MEM", __FILE__, __LINE__);                                \
    } while (false)
