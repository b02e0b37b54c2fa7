// Symbol files that were cut short or damaged: any answer will do, as long as there is one.
#include "helpers.h"
#include "vbx/platform/debug_symbols/elf_file.h"
#include "vbx/platform/debug_symbols/function_index.h"
#include "vbx/platform/debug_symbols/line_index.h"

#include <random>

namespace {

class HOSTILE_FILES : public SYMBOL_TEST, public testing::WithParamInterface<std::string> {
  protected:
    // Reads a file as far as it can be read and counts the answers for addresses all over it.
    int interrogate(const std::string& contents) const {
        write_file(folder / "hostile.so", contents);
        SYM_ELF_FILE file;
        if (!file.open((folder / "hostile.so").c_str()))
            return 0;
        file.build_id();
        SYM_FUNCTION_INDEX functions;
        SYM_LINE_INDEX lines;
        const bool has_functions = functions.load(file);
        const bool has_lines = lines.load(file);
        file.close();
        int answers = 0;
        for (std::uint64_t address = 0x1000; address < 0x12000; address += 37) {
            SYM_FUNCTION_INDEX::FUNCTION function{};
            std::string file_name;
            std::uint32_t line = 0;
            answers += has_functions && functions.find(address, function) && function.name != nullptr;
            answers += has_lines && lines.find(address, file_name, line) && !file_name.empty();
        }
        return answers;
    }
};

TEST_P(HOSTILE_FILES, cut_short_or_with_random_bytes) {
    const std::string whole = test_read_file(SUBJECTS + GetParam() + ".so");
    ASSERT_GT(interrogate(whole), 100);
    for (std::size_t size = 0; size < whole.size(); size += whole.size() / 60 + 1)
        interrogate(whole.substr(0, size));
    const char* const given = std::getenv("HOSTILE_FILES_SEED");
    const unsigned seed = given != nullptr ? static_cast<unsigned>(std::atol(given)) : std::random_device{}();
    std::printf("HOSTILE_FILES_SEED=%u\n", seed); // first, because a fault here is a crash
    std::mt19937 random(seed);
    int answers = 0;
    for (int round = 0; round < 60; ++round) {
        std::string damaged = whole;
        // From a few bytes to every hundredth; half of the rounds spare the headers to get further in.
        const std::size_t count = round % 3 == 0 ? 4 : round % 3 == 1 ? 200 : whole.size() / 100;
        const std::size_t spared = round % 2 == 0 ? 0 : 4096;
        for (std::size_t at = 0; at < count; ++at)
            damaged[spared + random() % (whole.size() - 2 * spared)] = static_cast<char>(random());
        answers += interrogate(damaged);
    }
    EXPECT_GT(answers, 0) << "damage so heavy that nothing was read";
}

INSTANTIATE_TEST_SUITE_P(subjects, HOSTILE_FILES,
                         testing::Values("gcc_dwarf4", "gcc_dwarf5", "clang_dwarf4", "clang_dwarf5"),
                         [](const auto& test) { return test.param; });

} // namespace
