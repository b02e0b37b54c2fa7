// Host slots: configuration answered by the slot or the environment, messages by the slot or standard output.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/host/messages.h"

#include <string>
#include <vector>

struct SWITCH_CASE {
    const char* value;
    bool with_default_false;
    bool with_default_true;
};

TEST(CONFIGURATION_TEST, ReadsSwitchesFromTheEnvironment) {
    EXPECT_TRUE(mem_cfg_is_on("debug_msg", true));
    EXPECT_FALSE(mem_cfg_is_on("debug_msg", false));
    for (const SWITCH_CASE& expected : std::initializer_list<SWITCH_CASE>{{"ON", true, true},
                                                                          {"1", true, true},
                                                                          {"Off", false, false},
                                                                          {"0", false, false},
                                                                          {"", false, true},
                                                                          {"yes", false, true},
                                                                          {"on ", false, true}}) {
        set_variable("debug_msg", expected.value);
        EXPECT_EQ(mem_cfg_is_on("debug_msg", false), expected.with_default_false) << expected.value;
        EXPECT_EQ(mem_cfg_is_on("debug_msg", true), expected.with_default_true) << expected.value;
    }
    EXPECT_TRUE(mem_cfg_is_on(nullptr, true));
}

TEST(CONFIGURATION_TEST, ReadsValuesFromTheEnvironment) {
    EXPECT_EQ(mem_cfg_get_value("k"), "");
    EXPECT_EQ(mem_cfg_get_value(nullptr), "");
    EXPECT_EQ(mem_cfg_get_int_value("k", 7), 0);
    EXPECT_EQ(mem_cfg_get_int_value(nullptr, 7), 0);
    set_variable("k", "12abc");
    EXPECT_EQ(mem_cfg_get_value("k"), "12abc");
    EXPECT_EQ(mem_cfg_get_int_value("k", 7), 12);
    set_variable("k", "abc");
    EXPECT_EQ(mem_cfg_get_int_value("k", 7), 0);
}

TEST(CONFIGURATION_TEST, AsksTheHostFirst) {
    set_variable("k", "1");
    mem_set_cfg_is_on_callback(
        [](const char* name, bool default_value) { return name == nullptr || default_value; });
    EXPECT_TRUE(mem_cfg_is_on(nullptr, false));
    EXPECT_FALSE(mem_cfg_is_on("k", false));
    mem_set_cfg_is_on_callback(nullptr);
    EXPECT_TRUE(mem_cfg_is_on("k", false));

    mem_set_cfg_get_value_callback([](const char* name, std::string* value) { *value += name; });
    EXPECT_EQ(mem_cfg_get_value("k"), "k");
    mem_set_cfg_get_int_value_callback([](const char*, int* value, int default_value) {
        if (default_value != 0)
            *value += default_value;
    });
    EXPECT_EQ(mem_cfg_get_int_value("k", 7), 7);
    EXPECT_EQ(mem_cfg_get_int_value("k", 0), 0);
}

TEST(HOST_SLOT_TEST, PathsAreEmptyWithoutAHost) {
    EXPECT_EQ(mem_gen_get_tarvane_path(), "");
    EXPECT_EQ(mem_gen_get_db_dir_path_string(), "");
    EXPECT_EQ(mem_gen_get_module_filename(), "");
    EXPECT_STREQ(mem_gen_get_project_output_directory(), "");
    EXPECT_FALSE(mem_gen_get_is_ui_process());
    EXPECT_EQ(msg_interface, nullptr);
    mem_set_gen_get_tarvane_path_callback([] { return std::string("/opt/suite"); });
    mem_set_gen_get_db_dir_path_string_callback([] { return std::string("/var/db"); });
    mem_set_gen_get_module_filename_callback([] { return std::string("indexer"); });
    mem_set_gen_get_project_output_directory_callback([]() -> const char* { return "/out"; });
    mem_set_gen_get_is_ui_process_callback([] { return true; });
    EXPECT_EQ(mem_gen_get_tarvane_path(), "/opt/suite");
    EXPECT_EQ(mem_gen_get_db_dir_path_string(), "/var/db");
    EXPECT_EQ(mem_gen_get_module_filename(), "indexer");
    EXPECT_STREQ(mem_gen_get_project_output_directory(), "/out");
    EXPECT_TRUE(mem_gen_get_is_ui_process());
}

namespace {

std::vector<std::string> received;

bool receive(const char* tag, const char* format, std::va_list args) {
    char text[100];
    std::vsnprintf(text, sizeof text, format, args);
    received.push_back(std::string(tag) + "|" + text);
    return false;
}

bool call(bool (*message)(const char*, const char*, std::va_list), const char* format, ...) {
    std::va_list args;
    va_start(args, format);
    const bool result = message("TAG", format, args);
    va_end(args);
    return result;
}

} // namespace

TEST(HOST_SLOT_TEST, MessagesGoToTheirSlotOrToStandardOutput) {
    testing::internal::CaptureStdout();
    EXPECT_TRUE(mem_msg_debug("x %d", 1));
    EXPECT_TRUE(call(mem_msg_local_vinfo, "%s", "info"));
    mem_print_stdout("plain %d\n", 2);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "MEM: x 1\nTAG: info\nplain 2\n");

    mem_set_msg_local_vinfo_callback(receive);
    testing::internal::CaptureStdout();
    EXPECT_TRUE(mem_msg_debug("still out"));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "MEM: still out\n");
    mem_set_msg_local_vdebug_callback(receive);
    EXPECT_FALSE(mem_msg_debug("x %d", 1));
    EXPECT_FALSE(call(mem_msg_local_vdebug, "%d", 2));
    EXPECT_FALSE(call(mem_msg_local_vinfo, "%d", 3));
    EXPECT_EQ(received, (std::vector<std::string>{"MEM|x 1", "TAG|2", "TAG|3"}));
}
