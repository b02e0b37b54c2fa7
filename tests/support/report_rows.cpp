#include "tests/support/report_rows.h"

#include "tests/support/run_child.h"

#include <cstdlib>
#include <regex>
#include <stdexcept>

namespace {

std::vector<std::string> split(const std::string& text, char separator) {
    std::vector<std::string> parts{""};
    for (const char character : text)
        if (character == separator)
            parts.emplace_back();
        else
            parts.back() += character;
    return parts;
}

} // namespace

// Title, empty line, column names, rows, footer.
std::vector<TEST_ROW> test_read_report(const std::string& path, const std::string& kind) {
    const auto lines = split(test_read_file(path), '\n');
    const auto expect = [&path](bool has_right_shape, const std::string& line) {
        if (!has_right_shape)
            throw std::runtime_error(path + ": unexpected line '" + line + "'");
    };
    expect(lines[0] == "MEM: TBB " + kind + " Tracking Memory Snapshot.", lines[0]);
    expect(lines.size() >= 5 && lines[1].empty() && lines.back().empty(), lines.back());
    const std::size_t footer = lines.size() - 2;
    static const std::regex duration("Time spent dumping:\t[0-9.e+]+ clicks\\.\t[0-9.e+-]+ seconds\\.");
    expect(std::regex_match(lines[footer], duration), lines[footer]);
    const auto columns = split(lines[2], '\t');
    std::vector<TEST_ROW> rows;
    for (std::size_t index = 3; index < footer; ++index) {
        const auto fields = split(lines[index], '\t');
        expect(fields.size() == columns.size(), lines[index]);
        TEST_ROW& row = rows.emplace_back(TEST_ROW{fields[0], {}, "", ""});
        for (std::size_t column = 0; column < fields.size(); ++column)
            if (columns[column].ends_with("bytes") || columns[column].ends_with("blocks")) {
                row.figures[columns[column]] = std::atoll(fields[column].c_str());
                expect(std::to_string(row.figures[columns[column]]) == fields[column], lines[index]);
            }
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
