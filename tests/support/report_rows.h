// The report files as rows. A line that doesn't have its report's exact shape is an exception: a test that
// passed over it would prove nothing.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct TEST_FIGURES {
    std::int64_t current_bytes = 0;
    std::int64_t max_bytes = 0;
    std::int64_t peak_bytes = 0;
    std::int64_t cumulative_bytes = 0;
    std::int64_t requested_bytes = 0;
    std::int64_t mismatched_bytes = 0;
    std::int64_t current_blocks = 0;
    std::int64_t max_blocks = 0;
    std::int64_t peak_blocks = 0;
    std::int64_t cumulative_blocks = 0;

    bool operator==(const TEST_FIGURES&) const = default;
    TEST_FIGURES& operator+=(const TEST_FIGURES& other);
};
void PrintTo(const TEST_FIGURES& figures, std::ostream* stream);

struct TEST_SITE_ROW {
    std::uint64_t address = 0; // 0 for the catch-all row
    TEST_FIGURES figures;
    std::string module;
    std::string file;
    int line = 0;
    std::string function;
};

struct TEST_SUBSYSTEM_ROW {
    std::string name;
    TEST_FIGURES figures; // max_bytes only when the report has that column; never max_blocks
};

struct TEST_LEAK_ROW {
    std::string module;
    std::int64_t bytes = 0;
    std::int64_t blocks = 0;
    std::string place; // "file:line function"
};

struct TEST_LEAK_REPORT {
    std::vector<TEST_LEAK_ROW> rows;
    std::int64_t total = 0;
};

// Each throws std::runtime_error, with the line in question, for a file that is missing or misshapen.
std::vector<TEST_SITE_ROW> test_read_fileline_report(const std::string& path);
std::vector<TEST_SUBSYSTEM_ROW> test_read_subsystem_report(const std::string& path);
TEST_LEAK_REPORT test_read_leak_report(const std::string& path);
