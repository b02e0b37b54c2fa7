// The report files as rows. A line that doesn't have its report's exact shape is an exception: a test that
// passed over it would prove nothing.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

// In the order of the per-site report; a column that a report doesn't have reads 0.
enum TEST_FIGURE {
    current_bytes,
    max_bytes,
    peak_bytes,
    cumulative_bytes,
    requested_bytes,
    mismatched_bytes,
    current_blocks,
    max_blocks,
    peak_blocks,
    cumulative_blocks,
};
using TEST_FIGURES = std::array<std::int64_t, 10>;

struct TEST_ROW {
    std::string name; // address of a site, "OTHER", or name of a subsystem
    TEST_FIGURES figures = {};
    // Of a site:
    std::string module;
    std::string place; // "file:line"
    std::string function;
};

// `kind` is Fileline or Subsystem. Throws std::runtime_error, with the line in question, for a file that is
// missing or misshapen.
std::vector<TEST_ROW> test_read_report(const std::string& path, const std::string& kind);

void test_add(TEST_FIGURES& sum, const TEST_FIGURES& figures);
TEST_FIGURES test_sum(const std::vector<TEST_ROW>& rows);
