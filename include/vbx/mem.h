// Everything that libvbx_mem offers its hosts. One include; link with vbx::mem.
//
// A module of the suite owns one static MEM_INITIALIZER and needs nothing else to be tracked:
//
//     #include <vbx/mem.h>
//     static MEM_INITIALIZER mem_initializer("parser");
//
// What is tracked is decided at load by the TARVANE_MEM_* environment variables and the configuration keys.
// Unless a function says otherwise it may be called from any thread.
#pragma once

#include <vbx/mem/callbacks.h>
#include <vbx/mem/code_modules.h>
#include <vbx/mem/control.h>
#include <vbx/mem/debug_aids.h>
#include <vbx/mem/facade.h>
#include <vbx/mem/host.h>
#include <vbx/mem/info.h>
#include <vbx/mem/initializer.h>
#include <vbx/mem/out_of_memory.h>
#include <vbx/mem/peaks.h>
#include <vbx/mem/profile_bins.h>
#include <vbx/mem/reports.h>
#include <vbx/mem/stats.h>
#include <vbx/mem/strings.h>
#include <vbx/mem/timelines.h>
#include <vbx/mem/trackers.h>
#include <vbx/mem_utils/chunk_alloc.h>
