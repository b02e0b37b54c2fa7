#include "vbx/mem/mem_tbb_tracker/reports/pb_stats_report.h"

#include "vbx/mem/mem_tbb_tracker/state/tracker_use.h"
#include "vbx/mem/mem_tbb_tracker_profile_bins/profile_bins.h"

#include <vbx/mem/profile_bins.h>

#include <ostream>

namespace {

struct UNIT {
    const char* heading;
    void (*write)(std::ostream& stream, std::int64_t bytes);
};

constexpr UNIT BYTES{"Name\tMax bytes\tPeak bytes\tCumulative bytes\tCurrent bytes\n",
                     [](std::ostream& stream, std::int64_t bytes) { stream << bytes; }};
constexpr UNIT MIB{"Name\tMax MiB\tPeak MiB\tCumulative MiB\tCurrent MiB\n",
                   [](std::ostream& stream, std::int64_t bytes) {
                       stream << static_cast<double>(bytes) * (1.0 / (1024 * 1024));
                   }};

// Fixed notation with three decimals, also on a stream that was set to scientific: both bits together would
// mean hexadecimal.
class THREE_DECIMALS {
  public:
    explicit THREE_DECIMALS(std::ostream& stream)
        : m_stream(stream), m_flags(stream.flags()), m_precision(stream.precision(3)) {
        stream.setf(std::ios_base::fixed, std::ios_base::floatfield);
    }
    ~THREE_DECIMALS() {
        m_stream.flags(m_flags);
        m_stream.precision(m_precision);
    }
    THREE_DECIMALS(const THREE_DECIMALS&) = delete;
    THREE_DECIMALS& operator=(const THREE_DECIMALS&) = delete;

  private:
    std::ostream& m_stream;
    std::ios_base::fmtflags m_flags;
    std::streamsize m_precision;
};

void write_head(std::ostream& stream, const char* title, const UNIT& unit) {
    stream << title << "\n\n" << unit.heading;
}

void write_rows(const MEM_PB_STATS_TABLE& table, std::ostream& stream, const MEM_PB_TABLE& names,
                const UNIT& unit) {
    // Rows that the table gains meanwhile are for the next report.
    const std::size_t size = table.size();
    for (std::uint32_t id = 0; id < size; ++id) {
        stream << names.name_of(id);
        const MEM_PB_FIGURES row = table.figures(id);
        for (const std::int64_t figure :
             {row.max_bytes, row.peak_bytes, row.cumulative_bytes, row.current_bytes}) {
            stream << '\t';
            unit.write(stream, figure);
        }
        stream << '\n';
    }
}

// A host's call may come when the tables are no more, or in the child of a fork.
bool dump_for_host(MEM_PB_STATS_TABLE* const& table, std::ostream& stream, const char* title,
                   const MEM_PB_TABLE& names) {
    write_head(stream, title, BYTES);
    if (const MEM_TRACKER_USE use; use)
        write_rows(*table, stream, names, BYTES);
    return true;
}

} // namespace

void mem_dump_pb_stats(const MEM_PB_STATS_TABLE& table, std::ostream& stream, const char* title,
                       const MEM_PB_TABLE& names) {
    write_head(stream, title, BYTES);
    write_rows(table, stream, names, BYTES);
}

void mem_dump_pb_stats_mib(const MEM_PB_STATS_TABLE& table, std::ostream& stream, const char* title,
                           const MEM_PB_TABLE& names) {
    const THREE_DECIMALS format(stream);
    write_head(stream, title, MIB);
    write_rows(table, stream, names, MIB);
}

bool mem_dump_tbb_profile_bin_stats_tracking(std::ostream& stream) {
    return dump_for_host(pbin_stats, stream, "Memory Tracking - Profile Bin Stats",
                         MEM_PROFILE_BINS::get_instance().m_bins());
}

bool mem_dump_tbb_profile_bin_tag_stats_tracking(std::ostream& stream) {
    return dump_for_host(ptag_stats, stream, "Memory Tracking - Profile Tag Stats",
                         MEM_PROFILE_BINS::get_instance().m_tags());
}
