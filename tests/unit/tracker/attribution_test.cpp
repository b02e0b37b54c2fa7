// From a stack to the site that is charged: the filter, the walk, the second capture, names.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/attribution/attribute_stack.h"
#include "vbx/mem/mem_tbb_tracker/attribution/frame_filter.h"
#include "vbx/mem/mem_tbb_tracker/attribution/resolve.h"

#include <atomic>
#include <cstring>
#include <new>
#include <numeric>
#include <thread>

namespace {

struct FILTER_CASE {
    const char* function;
    const char* file;
    const char* module;
    bool is_filtered;
};

MEM_ADDRESS_TRACKER frame(const FILTER_CASE& names) {
    MEM_ADDRESS_TRACKER record;
    std::strcpy(record.function_name, names.function);
    std::strcpy(record.file_name, names.file);
    std::strcpy(record.module_name, names.module);
    return record;
}

FAKE_STACK filtered_frames(std::size_t count) {
    FAKE_STACK stack(count);
    std::iota(stack.begin(), stack.end(), FILTERED);
    return stack;
}

} // namespace

TEST(FRAME_FILTER_TEST, PassesOverWhatIsNotTheHostsOwn) {
    for (const FILTER_CASE& names :
         std::initializer_list<FILTER_CASE>{{"parse()", "/s/parse.cpp", "parser", false},
                                            {"", "/s/parse.cpp", "parser", true},
                                            {"parse()", "", "parser", true},
                                            {"parse()", "/s/parse.cpp", "", true},
                                            {"std::vector<int>::grow()", "f", "m", true},
                                            {"my::std::f()", "f", "m", false},
                                            {"mem_read", "f", "m", true},
                                            {"memory_read", "f", "m", false},
                                            {"MEM_MANAGER::x()", "f", "m", true},
                                            {"operator new(unsigned long)", "f", "m", true},
                                            {"operator new[](unsigned long)", "f", "m", true},
                                            {"operator delete(void*)", "f", "m", false},
                                            {"KTL_LIST::add()", "f", "m", true},
                                            {"boost::any::any()", "f", "m", true},
                                            {"tbb::task::run()", "f", "m", true},
                                            {"ntl::list::add()", "f", "m", true},
                                            {"f", "f", "vbx_mem", true},
                                            {"f", "f", "vbx_mem_preload", true},
                                            {"f", "f", "vbx_memory", true},
                                            {"f", "f", "tbbamalloc", true},
                                            {"f", "f", "tbx", false},
                                            {"f", "f", "Db_KvS", true},
                                            {"f", "f", "db_kvs2", false},
                                            {"f", "/rigs/x.cpp", "m", true},
                                            {"f", "/opt/rigs/x.cpp", "m", false},
                                            {"f", "d:\\src\\kvs_map.cpp", "m", true},
                                            {"f", "d:\\src\\mem_pool.cpp", "m", true},
                                            {"f", "d:\\src\\kit_utils", "m", true},
                                            {"f", "d:\\src\\kit_utils.cpp", "m", false},
                                            {"f", "d:\\src\\plc_zk_mem_interface", "m", true},
                                            {"f", "d:\\src\\tbb_concurrent_hash_map_sys", "m", true},
                                            {"f", "d:\\kvs_src\\map.cpp", "m", false},
                                            {"f", "/src/kvs_map.cpp", "m", false}})
        EXPECT_EQ(mem_frame_is_filtered(frame(names)), names.is_filtered)
            << names.function << " " << names.file << " " << names.module;
}

class ATTRIBUTION_TEST : public TRACKER_TEST {};

TEST_F(ATTRIBUTION_TEST, ChargesTheFirstFrameOfTheHost) {
    start(MEM_GRANULARITY_PER_FILELINE);
    allocate(0xA000, 16, {FILTERED, FILTERED + 1, PARSE, QUERY});
    EXPECT_EQ(rendered_site(PARSE), "parse cur 16/1 max 16/1 peak 0/0 cum 16/1 req 16 mis 0");
    // Frames behind the charged one are not even looked at, and each address is asked for once.
    EXPECT_EQ(rendered_site(QUERY), "none");
    EXPECT_EQ(fake_line_queries(), 3);
    allocate(0xA010, 16, {FILTERED, FILTERED + 1, PARSE, QUERY});
    EXPECT_EQ(fake_line_queries(), 3);
}

struct DEPTH_CASE {
    std::size_t filtered_frames;
    bool reaches_parse;
    std::size_t captures;
};

TEST_F(ATTRIBUTION_TEST, LooksDeeperOnlyBehindAFullCapture) {
    start(MEM_GRANULARITY_PER_FILELINE);
    std::uint64_t block = 0xA000;
    int parsed = 0;
    int others = 0;
    for (const DEPTH_CASE& depth : std::initializer_list<DEPTH_CASE>{
             {10, true, 1}, {11, true, 2}, {60, true, 2}, {61, false, 2}, {100, false, 2}}) {
        fake_captures().clear();
        FAKE_STACK stack = filtered_frames(depth.filtered_frames);
        stack.push_back(PARSE);
        allocate(block += 16, 16, stack);
        ++(depth.reaches_parse ? parsed : others);
        EXPECT_EQ(fake_captures().size(), depth.captures) << depth.filtered_frames;
    }
    EXPECT_EQ(fake_captures().back().max_frames, 50);
    EXPECT_EQ(fake_captures().back().skip_frames, 11);
    MEM_ADDRESS_TRACKER site;
    ASSERT_TRUE(mem_get_address_tracker(reinterpret_cast<void*>(0xA010), site));
    EXPECT_EQ(site.current_blocks, parsed);
    EXPECT_EQ(catch_all().current_blocks, others);

    fake_captures().clear();
    allocate(block += 16, 16, filtered_frames(10));
    allocate(block += 16, 16, {});
    EXPECT_EQ(fake_captures().size(), 2U);
    EXPECT_EQ(catch_all().current_blocks, others + 2);
}

TEST_F(ATTRIBUTION_TEST, TakesAFrameOfZeroForTheCatchAll) {
    start(MEM_GRANULARITY_PER_FILELINE);
    allocate(0xA000, 16, {FILTERED, 0, PARSE});
    EXPECT_EQ(catch_all().current_blocks, 1);
    EXPECT_EQ(rendered_site(PARSE), "none");
}

TEST_F(ATTRIBUTION_TEST, AcceptsIncompleteInformationWhenAsked) {
    set_variable("mem_profile_with_incomplete_fileline_info", "on");
    fake_define_symbol(0x500, {"no_line", "", 0, "parser"});
    fake_define_symbol(0x501, {"", "", 0, "parser"});
    fake_define_symbol(0x502, {"std::no_line", "", 0, "parser"});
    start(MEM_GRANULARITY_PER_FILELINE);
    allocate(0xA000, 16, {0x501, 0x502, 0x500});
    MEM_ADDRESS_TRACKER site;
    ASSERT_TRUE(mem_get_address_tracker(reinterpret_cast<void*>(0xA000), site));
    EXPECT_STREQ(site.function_name, "no_line");
    EXPECT_STREQ(site.file_name, "Unknown");
    EXPECT_EQ(site.line, 0U);
}

TEST_F(ATTRIBUTION_TEST, CutsLongNamesAndEndsThem) {
    const std::string path = "/" + std::string(299, 'p');
    fake_define_symbol(0x600, {std::string(2000, 'f'), path, 7, std::string(300, 'm')});
    fake_define_symbol(0x601, {"f", std::string(256, 'q'), 7, std::string(64, 'm')});
    MEM_ADDRESS_TRACKER record;
    record.address = 0x600;
    mem_resolve_address(record);
    EXPECT_EQ(record.function_name, std::string(512, 'f'));
    EXPECT_EQ(record.file_name, path.substr(0, 256));
    EXPECT_EQ(record.module_name, std::string(64, 'm'));
    record = {};
    record.address = 0x601;
    mem_resolve_address(record);
    EXPECT_EQ(record.file_name, std::string(256, 'q'));
    EXPECT_EQ(record.module_name, std::string(64, 'm'));
}

TEST_F(ATTRIBUTION_TEST, RefreshesTheModuleListOnlyForAModuleNotListed) {
    fake_define_symbol(0x700, {"late", "/src/late.cpp", 5, "late", false});
    fake_define_symbol(0x701, {"bare", "", 0, "bare"});
    MEM_ADDRESS_TRACKER record;
    record.address = 0x701;
    mem_resolve_address(record);
    EXPECT_EQ(fake_refreshes(), 0);
    EXPECT_STREQ(record.module_name, "bare");
    record = {};
    record.address = 0x700;
    mem_resolve_address(record);
    EXPECT_EQ(fake_refreshes(), 1);
    EXPECT_STREQ(record.file_name, "/src/late.cpp");
}

TEST_F(ATTRIBUTION_TEST, KeepsWhatWasFoundWhenTheServiceThrows) {
    fake_set_symbol_query_hook([](std::uint64_t) { throw std::bad_alloc(); });
    MEM_ADDRESS_TRACKER record;
    record.address = PARSE;
    mem_resolve_address(record);
    EXPECT_STREQ(record.module_name, "");
    fake_set_symbol_query_hook({});
    mem_resolve_address(record);
    EXPECT_STREQ(record.module_name, "parser");
}

// Threads with known addresses go on while another describes a new one; two threads that meet one new address
// charge one record.
TEST_F(ATTRIBUTION_TEST, HoldsNobodyUpWhileItDescribes) {
    start(MEM_GRANULARITY_PER_FILELINE);
    allocate(0xA000, 16, {PARSE});
    std::atomic<bool> describing{false};
    std::atomic<bool> known_event_is_through{false};
    fake_set_symbol_query_hook([&](std::uint64_t) {
        describing = true;
        while (!known_event_is_through)
            std::this_thread::yield();
    });
    std::thread first([] { allocate(0xB000, 16, {EXPAND}); });
    while (!describing)
        std::this_thread::yield();
    std::thread second([] { allocate(0xC000, 16, {EXPAND}); });
    allocate(0xD000, 16, {PARSE});
    known_event_is_through = true;
    first.join();
    second.join();
    EXPECT_EQ(rendered_sites(), "parse cur 32/2 max 32/2 peak 0/0 cum 32/2 req 32 mis 0\n"
                                "expand cur 32/2 max 32/2 peak 0/0 cum 32/2 req 32 mis 0\n");
}
