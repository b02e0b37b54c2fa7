// The records of allocation sites and modules, and the queries that copy them out.
//
//     site  parser!read_token  token.cpp:40 ----+
//     site  parser!grow_table  table.cpp:12 ----+--> module  parser     (module_tracker)
//     site  catch-all, address 0           --------> module  OTHER
//
// Every block is charged to one site and, through it, to one module. Over all sites, current bytes are the
// bytes of all blocks that were attributed and are still live.
#pragma once

#include <vbx/mem/export.h>

#include <cstdint>
#include <string>

// The ten counters of a site or a module. Bytes are those of the slots that the allocator gave.
struct MEMORY_TRACKER_BASE {
    std::int32_t current_blocks = 0;              // charged here and not yet freed; can be below 0
    std::int32_t max_blocks = 0;                  // highest current_blocks at an allocation
    std::int32_t peak_blocks = 0;                 // current_blocks at the last recorded peak of the process
    std::int64_t cumulative_blocks = 0;           // ever charged here
    std::int64_t current_bytes = 0;               // can be below 0
    std::int64_t max_bytes = 0;                   // highest current_bytes at an allocation
    std::int64_t peak_bytes = 0;                  // current_bytes at the last recorded peak of the process
    std::int64_t cumulative_bytes = 0;            // ever charged here
    std::int64_t cumulative_requested_bytes = 0;  // the same in bytes asked for
    std::int64_t cumulative_mismatched_bytes = 0; // freed on another thread than the allocating one
};

// Longer names are cut to so many characters.
constexpr int MEM_MAX_MODULE_NAME = 64;
constexpr int MEM_MAX_FILE_NAME = 256;
constexpr int MEM_MAX_FUNCTION_NAME = 512;

// The record of an allocation site.
struct MEM_ADDRESS_TRACKER : MEMORY_TRACKER_BASE {
    std::uint64_t address = 0; // return address of the charged frame; 0 in the catch-all record
    std::uint32_t line = 0;    // 0 when unknown
    char module_name[MEM_MAX_MODULE_NAME + 1] = {};     // empty when unknown, as the two below
    char file_name[MEM_MAX_FILE_NAME + 1] = {};         // path as the debug information gives it
    char function_name[MEM_MAX_FUNCTION_NAME + 1] = {}; // undecorated
    MEMORY_TRACKER_BASE* module_tracker = nullptr;      // readable only while the module's record lives
    bool filtered = false;                              // passed over by attribution, never charged
};

// Where a block was allocated.
// address  start of a live block; null asks for the catch-all record
// result   gets a copy of the block's site record, one consistent state; untouched when the result is false
// Returns false for an address that is not the start of a live tracked block. Needs a started tracker. Throws
// std::bad_alloc when the catch-all record, which a reset removes, can't be made again
VBX_MEM_API bool mem_get_address_tracker(const void* address, MEM_ADDRESS_TRACKER& result);

// The figures of a module.
// name     short name of the module, case significant; "OTHER" for what could not be attributed
// tracker  gets a copy of the ten counters; untouched when the result is false
// Returns false when the module has no record. Needs a started tracker.
VBX_MEM_API bool mem_get_module_tracker(const std::string& name, MEMORY_TRACKER_BASE& tracker);
