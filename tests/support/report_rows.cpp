#include "tests/support/report_rows.h"

#include <fstream>
#include <regex>
#include <stdexcept>

namespace {

std::vector<std::string> lines_of(const std::string& path, const std::string& title) {
    std::ifstream stream(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    if (lines.size() < 4 || lines[0] != title || !lines[1].empty())
        throw std::runtime_error(path + " is missing or has another title");
    return lines;
}

std::smatch parts_of(const std::string& line, const char* shape) {
    std::smatch parts;
    if (!std::regex_match(line, parts, std::regex(shape)))
        throw std::runtime_error("unexpected line '" + line + "'");
    return parts;
}

std::vector<std::string> split_at_tabs(const std::string& line) {
    std::vector<std::string> fields{""};
    for (const char character : line)
        if (character == '\t')
            fields.emplace_back();
        else
            fields.back() += character;
    return fields;
}

} // namespace

// Title, empty line, column names, rows, footer.
std::vector<TEST_ROW> test_read_report(const std::string& path, const std::string& kind) {
    const auto lines = lines_of(path, "MEM: TBB " + kind + " Tracking Memory Snapshot.");
    parts_of(lines.back(), "Time spent dumping:\t[0-9.e+]+ clicks\\.\t[0-9.e+-]+ seconds\\.");
    const auto columns = split_at_tabs(lines[2]);
    std::vector<TEST_ROW> rows;
    for (std::size_t index = 3; index + 1 < lines.size(); ++index) {
        const auto fields = split_at_tabs(lines[index]);
        if (fields.size() != columns.size())
            throw std::runtime_error("unexpected line '" + lines[index] + "'");
        TEST_ROW& row = rows.emplace_back(TEST_ROW{fields[0], {}, "", ""});
        for (std::size_t column = 0; column < fields.size(); ++column)
            if (columns[column].ends_with("bytes") || columns[column].ends_with("blocks"))
                row.figures[columns[column]] = std::stoll(parts_of(fields[column], "-?\\d+")[0]);
        if (fields.size() == 15) {
            row.place = fields[12] + ":" + fields[13];
            row.function = fields[14];
        }
    }
    return rows;
}

void test_add(TEST_FIGURES& sum, const TEST_FIGURES& figures) {
    for (const auto& [column, figure] : figures)
        sum[column] += figure;
}

TEST_FIGURES test_sum(const std::vector<TEST_ROW>& rows) {
    TEST_FIGURES sum;
    for (const TEST_ROW& row : rows)
        test_add(sum, row.figures);
    return sum;
}
