// The statistics of bins and tags: one row an id, in bytes or in MiB.
#pragma once

#include "vbx/mem/mem_tbb_tracker/records/pb_stats_table.h"
#include "vbx/mem/mem_tbb_tracker_profile_bins/pb_table.h"

#include <iosfwd>

// Writes a title, a heading and the rows, one for each entry of the table. Takes no lock; what is charged
// meanwhile may show in one figure of a row and not yet in the next.
// table   the figures
// stream  in its own number format; a failed stream swallows everything
// title   the first line
// names   the names of the table's ids
void mem_dump_pb_stats(const MEM_PB_STATS_TABLE& table, std::ostream& stream, const char* title,
                       const MEM_PB_TABLE& names);
// The same in MiB with three decimals. The stream gets its format back.
void mem_dump_pb_stats_mib(const MEM_PB_STATS_TABLE& table, std::ostream& stream, const char* title,
                           const MEM_PB_TABLE& names);
