#include "tests/support/report_rows.h"

#include <fstream>
#include <initializer_list>
#include <ostream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace {

using FIGURE = std::int64_t TEST_FIGURES::*;
using F = TEST_FIGURES;

constexpr std::pair<const char*, FIGURE> FIGURES[] = {
    {"Current bytes", &F::current_bytes},
    {"Max bytes", &F::max_bytes},
    {"Peak bytes", &F::peak_bytes},
    {"Cumulative bytes", &F::cumulative_bytes},
    {"Cumulative requested bytes", &F::requested_bytes},
    {"Cumulative mismatched bytes", &F::mismatched_bytes},
    {"Current blocks", &F::current_blocks},
    {"Max blocks", &F::max_blocks},
    {"Peak blocks", &F::peak_blocks},
    {"Cumulative blocks", &F::cumulative_blocks},
};

[[noreturn]] void misshapen(const std::string& path, const std::string& line) {
    throw std::runtime_error(path + ": unexpected line '" + line + "'");
}

std::vector<std::string> lines_of(const std::string& path) {
    std::ifstream stream(path);
    if (!stream)
        throw std::runtime_error(path + " is missing");
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::vector<std::string> split_at_tabs(const std::string& line) {
    std::vector<std::string> fields{""};
    for (const char character : line) {
        if (character == '\t')
            fields.emplace_back();
        else
            fields.back() += character;
    }
    return fields;
}

std::int64_t number(const std::string& text) {
    std::size_t used = 0;
    const std::int64_t result = std::stoll(text, &used);
    if (used != text.size())
        throw std::runtime_error("not a number: '" + text + "'");
    return result;
}

struct TABLE {
    std::vector<std::string> columns;
    std::vector<std::vector<std::string>> rows;
};

// Title, empty line, column names, rows, footer.
TABLE read_table(const std::string& path, const std::string& title) {
    const std::vector<std::string> lines = lines_of(path);
    if (lines.size() < 4 || lines[0] != title || !lines[1].empty())
        misshapen(path, lines.empty() ? "" : lines[0]);
    static const std::regex footer("Time spent dumping:\t[0-9.e+]+ clicks\\.\t[0-9.e+-]+ seconds\\.");
    if (!std::regex_match(lines.back(), footer))
        misshapen(path, lines.back());
    TABLE table{split_at_tabs(lines[2]), {}};
    for (std::size_t index = 3; index + 1 < lines.size(); ++index) {
        table.rows.push_back(split_at_tabs(lines[index]));
        if (table.rows.back().size() != table.columns.size())
            misshapen(path, lines[index]);
    }
    return table;
}

TEST_FIGURES figures_of(const TABLE& table, const std::vector<std::string>& row) {
    TEST_FIGURES figures;
    for (std::size_t column = 0; column < row.size(); ++column)
        for (const auto& [name, figure] : FIGURES)
            if (table.columns[column] == name)
                figures.*figure = number(row[column]);
    return figures;
}

} // namespace

TEST_FIGURES& TEST_FIGURES::operator+=(const TEST_FIGURES& other) {
    for (const auto& [name, figure] : FIGURES)
        this->*figure += other.*figure;
    return *this;
}

void PrintTo(const TEST_FIGURES& figures, std::ostream* stream) {
    for (const auto& [name, figure] : FIGURES)
        *stream << name << " " << figures.*figure << "; ";
}

std::vector<TEST_SITE_ROW> test_read_fileline_report(const std::string& path) {
    const TABLE table = read_table(path, "MEM: TBB Fileline Tracking Memory Snapshot.");
    std::vector<TEST_SITE_ROW> rows;
    for (const std::vector<std::string>& fields : table.rows) {
        TEST_SITE_ROW& row = rows.emplace_back();
        row.address = fields[0] == "OTHER" ? 0 : std::stoull(fields[0], nullptr, 16);
        row.figures = figures_of(table, fields);
        row.module = fields.at(11);
        row.file = fields.at(12);
        row.line = static_cast<int>(number(fields.at(13)));
        row.function = fields.at(14);
    }
    return rows;
}

std::vector<TEST_SUBSYSTEM_ROW> test_read_subsystem_report(const std::string& path) {
    const TABLE table = read_table(path, "MEM: TBB Subsystem Tracking Memory Snapshot.");
    std::vector<TEST_SUBSYSTEM_ROW> rows;
    for (const std::vector<std::string>& fields : table.rows)
        rows.push_back({fields[0], figures_of(table, fields)});
    return rows;
}

TEST_LEAK_REPORT test_read_leak_report(const std::string& path) {
    static const std::regex leak("(.*) leaked (-?\\d+) bytes in (-?\\d+) object\\(s\\) allocated at (.*)");
    static const std::regex total("Total leaked bytes: (\\d+)");
    const std::vector<std::string> lines = lines_of(path);
    if (lines.size() < 4 || lines[0] != "MEM: TBB Leak Checking Summary.")
        misshapen(path, lines.empty() ? "" : lines[0]);
    TEST_LEAK_REPORT report;
    for (std::size_t index = 2; index + 2 < lines.size(); ++index) {
        std::smatch match;
        if (!std::regex_match(lines[index], match, leak))
            misshapen(path, lines[index]);
        report.rows.push_back({match[1], number(match[2]), number(match[3]), match[4]});
    }
    std::smatch match;
    if (!std::regex_match(lines.back(), match, total))
        misshapen(path, lines.back());
    report.total = number(match[1]);
    return report;
}
