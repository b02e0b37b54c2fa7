// Call frame information read as the tools mean it, and whatever else is written there read without harm.

#include "tests/unit/vbx_err/unwind_image.h"
#include "vbx/platform/vbx_err/cfi_program.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using KIND = ERR_FRAME_RULE::KIND;

ERR_FRAME_RULE rule_at(const ERR_UNWIND_TABLES& tables, std::uintptr_t address) {
    std::uint32_t row = 0;
    ERR_DESCRIPTION_BYTES bytes;
    ERR_FRAME_DESCRIPTION description;
    if (err_find_row(tables, address, row) != ERR_LOOKUP::found ||
        !err_description_in_row(tables, row, address, bytes) || !err_read_description(bytes, description))
        return {};
    return err_run_call_frame_program(description, address);
}

struct CASE {
    const char* name;
    BYTES program;
    ERR_FRAME_RULE expected; // at the function's 10th byte
    BYTES common = USUAL_COMMON_ENTRY;
};

void PrintTo(const CASE& item, std::ostream* stream) {
    *stream << item.name;
}

class CallFrames : public testing::TestWithParam<CASE> {};

TEST_P(CallFrames, LeadToTheCaller) {
    const UNWIND_IMAGE image({{}, GetParam().program}, GetParam().common);
    const ERR_FRAME_RULE rule = rule_at(image.tables(), image.code(UNWIND_IMAGE::CODE_SIZE + 10));
    EXPECT_EQ(rule.kind, GetParam().expected.kind);
    EXPECT_EQ(rule.cfa_offset, GetParam().expected.cfa_offset);
    EXPECT_EQ(rule.rbp_offset, GetParam().expected.rbp_offset);
}

constexpr ERR_FRAME_RULE rsp(std::int32_t cfa, std::int16_t rbp = 0) {
    return {cfa, rbp, KIND::from_rsp, 0};
}
constexpr ERR_FRAME_RULE by_rbp(std::int32_t cfa, std::int16_t rbp = 0) {
    return {cfa, rbp, KIND::from_rbp, 0};
}
constexpr ERR_FRAME_RULE outermost = {0, 0, KIND::outermost, 0};
constexpr ERR_FRAME_RULE unsupported = {};

BYTES common_entry(const BYTES& end) {
    BYTES bytes = {0, 0, 0, 0};
    bytes.insert(bytes.end(), end.begin(), end.end());
    return bytes;
}

// rbp is register 6, rsp 7, the return address 16; the data factor is -8.
INSTANTIATE_TEST_SUITE_P(
    Each, CallFrames,
    testing::Values(
        CASE{"nothing", {0, 0}, rsp(8)}, //
        CASE{"push_rbp", {0x41, 0x0E, 16, 0x86, 2}, rsp(16, -16)},
        CASE{"frame_pointer", {0x41, 0x0E, 16, 0x86, 2, 0x43, 0x0D, 6}, by_rbp(16, -16)},
        CASE{"row_begins_here", {0x4A, 0x0E, 64}, rsp(64)},
        CASE{"row_begins_later", {0x4B, 0x0E, 64}, rsp(8)},
        CASE{"advance_1", {0x02, 10, 0x0E, 16, 0x02, 1, 0x0E, 24}, rsp(16)},
        CASE{"advance_2", {0x03, 10, 0, 0x0E, 16, 0x03, 0, 1, 0x0E, 24}, rsp(16)},
        CASE{"advance_4", {0x04, 10, 0, 0, 0, 0x0E, 16, 0x04, 0, 0, 0, 1, 0x0E, 24}, rsp(16)},
        CASE{"def_cfa", {0x0C, 6, 0x90, 0x01}, by_rbp(144)}, CASE{"def_cfa_sf", {0x12, 7, 0x70}, rsp(128)},
        CASE{"def_cfa_offset_sf", {0x13, 0x60}, rsp(256)},
        CASE{"other_cfa_register", {0x0C, 10, 0}, unsupported},
        CASE{"expression_until_redefined", {0x0F, 2, 0x77, 8, 0x0C, 7, 16}, rsp(16)},
        CASE{"cfa_expression", {0x0F, 2, 0x77, 8}, unsupported},
        CASE{"offset_extended", {0x05, 6, 3}, rsp(8, -24)}, CASE{"offset_sf", {0x11, 6, 4}, rsp(8, -32)},
        CASE{"negative_offset", {0x2F, 6, 3}, unsupported}, CASE{"restore", {0x86, 2, 0xC6}, rsp(8)},
        CASE{"restore_extended", {0x86, 2, 0x06, 6}, rsp(8)}, CASE{"same_value", {0x86, 2, 0x08, 6}, rsp(8)},
        CASE{"undefined_rbp", {0x86, 2, 0x07, 6}, rsp(8)}, CASE{"rbp_elsewhere", {0x09, 6, 3}, unsupported},
        CASE{"rbp_expression", {0x10, 6, 2, 0x76, 0}, unsupported},
        CASE{"rbp_value", {0x14, 6, 2}, unsupported},
        CASE{"rbp_value_expression", {0x16, 6, 1, 0}, unsupported},
        CASE{"others_dont_matter", {0x83, 3, 0x8C, 4, 0x10, 3, 2, 0x76, 0, 0x15, 15, 0x70}, rsp(8)},
        CASE{"remembered", {0x0E, 16, 0x86, 2, 0x0A, 0x0C, 6, 32, 0xC6, 0x41, 0x0B}, rsp(16, -16)},
        CASE{"nothing_remembered", {0x0B}, unsupported},
        CASE{"remembered_too_often", {0x0A, 0x0A, 0x0A, 0x0A, 0x0A}, unsupported},
        CASE{"arguments_size", {0x2E, 0x80, 1, 0x0E, 16}, rsp(16)}, CASE{"outermost", {0x07, 16}, outermost},
        CASE{"moved_return_address", {0x90, 2}, unsupported},
        CASE{"restored_return_address", {0xD0}, unsupported}, CASE{"rsp_saved", {0x87, 2}, unsupported},
        CASE{"rbp_too_far", {0x86, 0xFF, 0x7F}, unsupported}, CASE{"unknown", {0x3F}, unsupported},
        CASE{"signal_frame",
             {},
             unsupported,
             common_entry({1, 'z', 'R', 'S', 0, 1, 0x78, 16, 1, 0x1B, 0x0C, 7, 8, 0x90, 1})},
        CASE{"personality",
             {},
             unsupported,
             common_entry({1, 'z', 'P', 'L', 'R', 0, 1, 0x78, 16, 7, 0x9B, 0, 0, 0})},
        CASE{"with_personality", {1}, unsupported, common_entry({1,    'z',  'P',  'L', 'R',  0, 1, 0x78,
                                                                 16,   7,    0x9B, 1,   2,    3, 4, 0x1B,
                                                                 0x1B, 0x0C, 7,    8,   0x90, 1})},
        CASE{"version_3",
             {0, 0},
             rsp(8),
             common_entry({3, 'z', 'R', 0, 1, 0x78, 16, 1, 0x1B, 0x0C, 7, 8, 0x90, 1})},
        CASE{"version_2",
             {},
             unsupported,
             common_entry({2, 'z', 'R', 0, 1, 0x78, 16, 1, 0x1B, 0x0C, 7, 8, 0x90, 1})},
        CASE{"other_column",
             {},
             unsupported,
             common_entry({1, 'z', 'R', 0, 1, 0x78, 17, 1, 0x1B, 0x0C, 7, 8, 0x90, 1})},
        CASE{"unknown_augmentation",
             {},
             unsupported,
             common_entry({1, 'z', 'Q', 0, 1, 0x78, 16, 1, 0x1B, 0x0C, 7, 8, 0x90, 1})},
        CASE{"indirect_code_pointer",
             {},
             unsupported,
             common_entry({1, 'z', 'R', 0, 1, 0x78, 16, 1, 0x9B, 0x0C, 7, 8, 0x90, 1})}),
    [](const testing::TestParamInfo<CASE>& item) { return std::string(item.param.name); });

TEST(UnwindTables, GiveOneRowToEachAddress) {
    const UNWIND_IMAGE image({{0x0E, 16}, {0x0E, 24}, {0x0E, 32}});
    for (std::int32_t index = 0; index < 3; ++index)
        for (const std::int32_t offset : {0, UNWIND_IMAGE::CODE_SIZE - 1})
            EXPECT_EQ(rule_at(image.tables(), image.code(index * UNWIND_IMAGE::CODE_SIZE + offset)),
                      rsp(16 + 8 * index));
    std::uint32_t row = 0;
    EXPECT_EQ(err_find_row(image.tables(), image.code(-1), row), ERR_LOOKUP::none);
    // A row that was right in another object is told from the one that is right here.
    ERR_DESCRIPTION_BYTES bytes;
    for (const std::uint32_t stale : {0U, 2U, 3U, UINT32_MAX})
        EXPECT_FALSE(err_description_in_row(image.tables(), stale, image.code(150), bytes)) << stale;
    EXPECT_TRUE(err_description_in_row(image.tables(), 1, image.code(150), bytes));
}

// Behind the image is memory that can't be read, so one byte too far is a crash.
TEST(UnwindTables, CanBeCutShortOrChangedAnywhere) {
    const std::vector<BYTES> programs = {{0x41, 0x0E, 16, 0x86, 2},
                                         {0x0A, 0x0F, 2, 0x77, 8, 0x0B, 0x05, 6, 2}};
    UNWIND_IMAGE image(programs);
    const BYTES whole = image.bytes();
    EXPECT_EQ(rule_at(image.tables(), image.code(110)), rsp(8, -16));
    for (std::size_t length = whole.size(); length >= 4;) {
        length -= 4;
        const ERR_UNWIND_TABLES tables = image.truncate(length);
        EXPECT_EQ(rule_at(tables, image.code(110)), unsupported) << length;
        rule_at(tables, image.code(10));
    }
    const unsigned seed = std::random_device()();
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    for (int round = 0; round < 20000; ++round) {
        BYTES changed = whole;
        for (int change = 0; change < 3; ++change)
            changed[random() % changed.size()] = static_cast<std::uint8_t>(random());
        image.reset(changed);
        for (const std::int32_t offset : {10, 110})
            rule_at(image.tables(), image.code(offset));
    }
}

} // namespace
