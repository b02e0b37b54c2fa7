#include "vbx/mem/mem_tbb_tracker/reports/timeline_report.h"

#include "vbx/mem/mem_tbb_tracker/reports/report_text.h"

#include <algorithm>
#include <ostream>

namespace {

constexpr std::size_t MAX_PLAIN_COLUMNS = 18;

using CURSORS = std::vector<MEM_SERIES_CURSOR>;

// Smallest maximum first; series of equal maxima keep their order.
std::vector<const MEM_TIMELINE_COLUMN*> ranked(const std::vector<MEM_TIMELINE_COLUMN>& columns) {
    struct RANKED {
        const MEM_TIMELINE_COLUMN* column;
        std::int64_t max;
    };
    std::vector<RANKED> by_max;
    by_max.reserve(columns.size());
    for (const MEM_TIMELINE_COLUMN& column : columns)
        by_max.push_back({&column, column.series->max()});
    std::ranges::stable_sort(by_max, {}, &RANKED::max);
    std::vector<const MEM_TIMELINE_COLUMN*> result;
    result.reserve(by_max.size());
    for (const RANKED& entry : by_max)
        result.push_back(entry.column);
    return result;
}

void write_title(std::ostream& stream, const char* title) {
    stream << title << std::endl << std::endl;
}

void write_figure(std::ostream& stream, std::int64_t figure) {
    stream << '\t' << static_cast<long long>(figure);
}

class PLAIN_OUTPUT {
  public:
    PLAIN_OUTPUT(std::ostream& stream, const std::vector<MEM_TIMELINE_COLUMN>& columns)
        : m_stream(stream), m_columns(ranked(columns)),
          m_num_misc(m_columns.size() - std::min(m_columns.size(), MAX_PLAIN_COLUMNS)) {
        for (const MEM_TIMELINE_COLUMN* column : m_columns)
            m_cursors.emplace_back(*column->series);
    }

    void write_column_line() {
        m_stream << "\tMisc";
        for (std::size_t column = m_num_misc; column < m_columns.size(); ++column)
            m_stream << '\t' << m_columns[column]->name;
        m_stream << std::endl;
    }

    void write_cells() {
        std::int64_t misc = 0;
        for (std::size_t column = 0; column < m_num_misc; ++column)
            misc += m_cursors[column].next();
        write_figure(m_stream, misc);
        for (std::size_t column = m_num_misc; column < m_cursors.size(); ++column)
            write_figure(m_stream, m_cursors[column].next());
    }

  private:
    std::ostream& m_stream;
    std::vector<const MEM_TIMELINE_COLUMN*> m_columns;
    // The first so many columns are added up.
    std::size_t m_num_misc;
    CURSORS m_cursors;
};

class DETAILED_OUTPUT {
  public:
    DETAILED_OUTPUT(std::ostream& stream, const std::vector<MEM_TIMELINE_COLUMN>& columns)
        : m_stream(stream), m_columns(columns) {
        for (const MEM_TIMELINE_COLUMN& column : columns)
            m_cursors.emplace_back(*column.series);
    }

    void write_column_line() {
        for (const MEM_TIMELINE_COLUMN& column : m_columns)
            m_stream << '\t' << column.name;
        m_stream << std::endl;
    }

    void write_cells() {
        for (MEM_SERIES_CURSOR& cursor : m_cursors)
            write_figure(m_stream, cursor.next());
    }

  private:
    std::ostream& m_stream;
    const std::vector<MEM_TIMELINE_COLUMN>& m_columns;
    CURSORS m_cursors;
};

} // namespace

bool mem_write_timeline(std::ostream& plain, std::ostream& detailed,
                        const std::vector<MEM_TIMELINE_COLUMN>& columns, std::uint64_t num_rows,
                        MEM_ROW_LABELS& labels) {
    const MEM_REPORT_TIMER timer;
    if (plain.fail() || detailed.fail())
        return false;
    PLAIN_OUTPUT plain_output(plain, columns);
    DETAILED_OUTPUT detailed_output(detailed, columns);
    write_title(plain, "MEM: TBB Module Tracking Memory Timeline.");
    write_title(detailed, "MEM: TBB Module Tracking Detailed Memory Timeline.");
    plain_output.write_column_line();
    detailed_output.write_column_line();
    for (std::uint64_t row = 0; row < num_rows; ++row) {
        const std::string_view label = labels.current();
        plain << label;
        detailed << label;
        plain_output.write_cells();
        detailed_output.write_cells();
        plain << std::endl;
        detailed << std::endl;
        labels.advance();
    }
    timer.write_timeline_footer({&plain, &detailed});
    return true;
}
