// Every figure of every planted site is the one computed by hand, in each report, whatever compiler and
// optimisation the program was built with; and each site points where addr2line says.

#include "tests/support/report_rows.h"
#include "tests/support/run_child.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>

namespace {

struct PLANTED {
    const char* name;
    const char* file;
    std::int64_t size;  // of one block
    std::int64_t asked; // in all
    struct {
        std::int64_t ever, highest, at_tide, at_end;
    } blocks;
    std::int64_t mismatched_blocks = 0;
};

constexpr PLANTED SITES[] = {
    {"c_malloc", "planted_c.c", 112, 1000, {10, 10, 6, 4}},
    {"c_calloc", "planted_c.c", 80, 210, {3, 3, 3, 0}},
    {"c_before_growth", "planted_c.c", 112, 100, {1, 1, 0, 0}},
    {"c_growth", "planted_c.c", 5376, 5000, {1, 1, 1, 0}},
    {"plain_new", "planted.cpp", 224, 200, {1, 1, 0, 0}},
    {"plain_new_again", "planted.cpp", 224, 200, {1, 1, 1, 1}},
    {"template", "planted.cpp", 160, 160, {1, 1, 1, 1}},
    {"inlined", "planted.cpp", 1024, 1000, {1, 1, 1, 1}},
    {"string", "planted.cpp", 1024, 1001, {1, 1, 1, 0}},
    {"aligned", "planted.cpp", 128, 128, {1, 1, 1, 0}},
    {"handed_over", "planted.cpp", 512, 2500, {5, 5, 2, 2}, 3},
    // Blocks of this size belong to no thread.
    {"large_handed_over", "planted.cpp", 20000, 20000, {1, 1, 0, 0}},
    {"thread", "planted.cpp", 320, 300, {1, 1, 1, 0}, 1},
    {"tide", "planted.cpp", 64 << 20, 64 << 20, {1, 1, 1, 0}},
    {"vector_object", "planted.cpp", 32, 24, {1, 1, 1, 0}},
    {"string_object", "planted.cpp", 32, 32, {1, 1, 1, 0}},
    {"lambda", "planted.cpp", 896, 800, {1, 1, 1, 1}},
    {"library", "planted_library.cpp", 4032, 3000, {1, 1, 1, 1}},
};

TEST_FIGURES figures_of(const PLANTED& site) {
    const auto [ever, highest, at_tide, at_end] = site.blocks;
    return {at_end * site.size,
            highest * site.size,
            at_tide * site.size,
            ever * site.size,
            site.asked,
            site.mismatched_blocks * site.size,
            at_end,
            highest,
            at_tide,
            ever};
}

// Room for 1, 2, 4 and 8 numbers; each new block is there before the old one goes.
constexpr TEST_FIGURES VECTOR = {0, 16 + 32, 32, 8 + 8 + 16 + 32, 4 + 8 + 16 + 32, 0, 0, 2, 1, 4};

// "file:line" of each mark.
std::map<std::string, std::string> marked_places() {
    std::map<std::string, std::string> places;
    for (const char* const file : {"planted.cpp", "planted_c.c", "planted_library.cpp"}) {
        std::ifstream stream(std::string(VBX_TEST_FIGURES "/") + file);
        int number = 0;
        for (std::string line; std::getline(stream, line);) {
            ++number;
            if (const std::size_t mark = line.find("// SITE "); mark != std::string::npos)
                places[line.substr(mark + 8)] =
                    std::string(VBX_TEST_FIGURES "/") + file + ":" + std::to_string(number);
        }
    }
    return places;
}

std::map<std::string, TEST_FIGURES> expected_figures() {
    const auto places = marked_places();
    std::map<std::string, TEST_FIGURES> expected = {{places.at("vector"), VECTOR}};
    for (const PLANTED& site : SITES)
        expected[places.at(site.name)] = figures_of(site);
    EXPECT_EQ(expected.size(), places.size()) << "a mark without figures";
    return expected;
}

bool is_planted(const std::string& file) {
    return file.starts_with(VBX_TEST_FIGURES "/planted") && file.find("planted_thread") == std::string::npos;
}

// Function and "file:line" of the outermost function around an address. For clang's programs that of its own
// tools: binutils' loses its inlined calls.
std::pair<std::string, std::string> ask_addr2line(const std::string& tool, const std::string& module,
                                                  std::uint64_t address) {
    std::ostringstream hexadecimal;
    hexadecimal << std::hex << address;
    const TEST_DIRECTORY directory;
    const TEST_OUTCOME outcome =
        test_run_child({{tool, "-i", "-f", "-C", "-e", module, hexadecimal.str()}, {}, ""}, directory);
    std::istringstream stream(outcome.standard_output);
    std::pair<std::string, std::string> last;
    for (std::string line; std::getline(stream, line);) {
        last.first = line;
        std::getline(stream, last.second);
    }
    last.second = last.second.substr(0, last.second.find(" (discriminator"));
    return last;
}

class Figures : public testing::TestWithParam<std::string> {
  protected:
    Figures() : m_program(VBX_TEST_BUILT_FIGURES "/planted_" + GetParam()) {
        m_outcome = test_run_child({{m_program}, {{"TARVANE_MEM_PROFILE_ALL", "1"}}, ""}, m_directory);
    }
    std::vector<TEST_SITE_ROW> rows() const {
        return test_read_fileline_report(m_directory / "mem_tbb_fileline.planted.log");
    }

    TEST_DIRECTORY m_directory;
    std::string m_program;
    TEST_OUTCOME m_outcome;
};

TEST_P(Figures, OfEverySiteAreTheKnownOnes) {
    ASSERT_EQ(m_outcome.end(), "exit 0") << m_outcome.standard_error;
    std::map<std::string, TEST_FIGURES> reported;
    for (const TEST_SITE_ROW& row : rows())
        if (is_planted(row.file))
            reported[row.file + ":" + std::to_string(row.line)] += row.figures;
    EXPECT_EQ(reported, expected_figures());
}

TEST_P(Figures, PointWhereAddr2lineSays) {
    ASSERT_EQ(m_outcome.end(), "exit 0");
    const std::string tool = GetParam().starts_with("clang") ? "llvm-addr2line" : "addr2line";
    std::size_t count = 0;
    for (const TEST_SITE_ROW& row : rows()) {
        if (!is_planted(row.file))
            continue;
        ++count;
        const bool in_library = row.module == "planted_library";
        const std::uint64_t base = in_library ? std::stoull(m_outcome.standard_error, nullptr, 16) : 0;
        const auto [function, place] =
            ask_addr2line(tool, in_library ? VBX_TEST_PLANTED_LIBRARY : m_program, row.address - base - 1);
        EXPECT_EQ(row.file + ":" + std::to_string(row.line), place);
        // addr2line writes the return type of a template's instance.
        EXPECT_TRUE(function.ends_with(row.function)) << row.function << " is not " << function;
    }
    EXPECT_GE(count, std::size(SITES) + 1);
}

TEST_P(Figures, AddUpInTheSubsystemReport) {
    std::map<std::string, TEST_FIGURES> sums;
    for (const TEST_SITE_ROW& row : rows())
        sums[row.module.empty() ? "OTHER" : row.module] += row.figures;
    const auto subsystems = test_read_subsystem_report(m_directory / "mem_tbb_subsystem.planted.log");
    std::int64_t last_peak = INT64_MAX;
    for (TEST_SUBSYSTEM_ROW row : subsystems) {
        EXPECT_LE(row.figures.peak_bytes, last_peak) << row.name;
        last_peak = row.figures.peak_bytes;
        EXPECT_GE(row.figures.max_bytes, row.figures.peak_bytes) << row.name;
        row.figures.max_bytes = sums[row.name].max_bytes;
        row.figures.max_blocks = sums[row.name].max_blocks;
        EXPECT_EQ(row.figures, sums[row.name]) << row.name;
    }
    EXPECT_EQ(subsystems.size(), sums.size());
    EXPECT_EQ(sums["planted_library"], figures_of(std::end(SITES)[-1]));
}

TEST_P(Figures, OfWhatIsLeftAreTheLeaks) {
    std::map<std::string, std::pair<std::int64_t, std::int64_t>> expected;
    for (const auto& [place, figures] : expected_figures())
        if (figures.current_bytes > 0)
            expected[place] = {figures.current_bytes, figures.current_blocks};
    const TEST_LEAK_REPORT report = test_read_leak_report(m_directory / "mem_tbb_leak_warning.planted.log");
    std::map<std::string, std::pair<std::int64_t, std::int64_t>> reported;
    std::int64_t total = 0;
    for (const TEST_LEAK_ROW& row : report.rows) {
        total += row.bytes;
        if (!is_planted(row.place))
            continue;
        // An unrolled loop has several sites at one place.
        auto& [bytes, blocks] = reported[row.place.substr(0, row.place.find(' '))];
        bytes += row.bytes;
        blocks += row.blocks;
    }
    EXPECT_EQ(reported, expected);
    EXPECT_EQ(report.total, total);
}

INSTANTIATE_TEST_SUITE_P(Builds, Figures, testing::Values(VBX_TEST_PLANTED_BUILDS),
                         [](const testing::TestParamInfo<std::string>& build) { return build.param; });

} // namespace
