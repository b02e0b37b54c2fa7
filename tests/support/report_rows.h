// The report files as rows. A line that doesn't have its report's exact shape is an exception: a test that
// passed over it would prove nothing.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

using TEST_FIGURES = std::map<std::string, std::int64_t>; // by the names of the columns

struct TEST_ROW {
    std::string name; // address of a site, "OTHER", or name of a subsystem
    TEST_FIGURES figures;
    // Of a site:
    std::string place; // "file:line"
    std::string function;
};

// `kind` is Fileline or Subsystem. Throws std::runtime_error, with the line in question, for a file that is
// missing or misshapen.
std::vector<TEST_ROW> test_read_report(const std::string& path, const std::string& kind);

void test_add(TEST_FIGURES& sum, const TEST_FIGURES& figures);
TEST_FIGURES test_sum(const std::vector<TEST_ROW>& rows);
