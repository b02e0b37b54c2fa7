// Host slots: configuration answered by the slot or the environment, paths, messages.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/host/messages.h"

TEST(HOST_SLOT_TEST, ConfigurationIsThatOfTheHostOrOfTheEnvironment) {
    const auto answers = [] {
        return std::to_string(mem_cfg_is_on("k", false)) + std::to_string(mem_cfg_is_on("k", true)) + " " +
               mem_cfg_get_value("k") + " " + std::to_string(mem_cfg_get_int_value("k", 7));
    };
    EXPECT_EQ(answers(), "01  0");
    for (const auto& [value, expected] : {std::pair{"ON", "11 ON 0"},
                                          {"1", "11 1 1"},
                                          {"Off", "00 Off 0"},
                                          {"0", "00 0 0"},
                                          {"on ", "01 on  0"},
                                          {"12abc", "01 12abc 12"}}) {
        set_variable("k", value);
        EXPECT_EQ(answers(), expected);
    }
    EXPECT_TRUE(mem_cfg_is_on(nullptr, true));
    EXPECT_EQ(mem_cfg_get_value(nullptr), "");
    mem_set_cfg_is_on_callback([](const char*, bool default_value) { return !default_value; });
    mem_set_cfg_get_value_callback([](const char* name, std::string* value) { *value += name; });
    mem_set_cfg_get_int_value_callback(
        [](const char*, int* value, int default_value) { *value += 10 * default_value; });
    EXPECT_EQ(answers(), "10 k 70");
    mem_set_cfg_is_on_callback(nullptr);
    EXPECT_EQ(answers(), "01 k 70");
}

namespace {

std::string received;

bool receive(const char* tag, const char* format, std::va_list args) {
    char text[100];
    std::vsnprintf(text, sizeof text, format, args);
    received += std::string(tag) + "|" + text + "\n";
    return false;
}

bool inform(const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    const bool result = mem_msg_local_vinfo("TAG", format, args);
    va_end(args);
    return result;
}

} // namespace

TEST(HOST_SLOT_TEST, MessagesGoToTheirSlotOrToStandardOutput) {
    testing::internal::CaptureStdout();
    EXPECT_TRUE(inform("%s", "info"));
    mem_set_msg_local_vinfo_callback(receive);
    EXPECT_TRUE(mem_msg_debug("x %d", 1));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "TAG: info\nMEM: x 1\n");
    mem_set_msg_local_vdebug_callback(receive);
    EXPECT_FALSE(mem_msg_debug("x %d", 1));
    EXPECT_FALSE(inform("%d", 3));
    EXPECT_EQ(received, "MEM|x 1\nTAG|3\n");
}

TEST(HOST_SLOT_TEST, PathsAreEmptyWithoutAHost) {
    const auto answers = [] {
        return mem_gen_get_tarvane_path() + "|" + mem_gen_get_db_dir_path_string() + "|" +
               mem_gen_get_module_filename() + "|" + mem_gen_get_project_output_directory() + "|" +
               (mem_gen_get_is_ui_process() ? "ui" : "");
    };
    EXPECT_EQ(answers(), "||||");
    mem_set_gen_get_tarvane_path_callback([] { return std::string("/opt/suite"); });
    mem_set_gen_get_db_dir_path_string_callback([] { return std::string("/var/db"); });
    mem_set_gen_get_module_filename_callback([] { return std::string("indexer"); });
    mem_set_gen_get_project_output_directory_callback([]() -> const char* { return "/out"; });
    mem_set_gen_get_is_ui_process_callback([] { return true; });
    EXPECT_EQ(answers(), "/opt/suite|/var/db|indexer|/out|ui");
}
