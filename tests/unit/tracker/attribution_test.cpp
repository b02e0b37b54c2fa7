// From a stack to the site that is charged: the filter, the walk, the second capture, names.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/attribution/frame_filter.h"
#include "vbx/mem/mem_tbb_tracker/attribution/resolve.h"

#include <atomic>
#include <cstring>
#include <new>
#include <numeric>

namespace {

MEM_ADDRESS_TRACKER resolved(std::uint64_t address) {
    MEM_ADDRESS_TRACKER record;
    record.address = address;
    mem_resolve_address(record);
    return record;
}

FAKE_STACK filtered_frames(std::size_t count, FAKE_STACK stack = {}) {
    stack.insert(stack.begin(), count, 0);
    std::iota(stack.begin(), stack.begin() + static_cast<std::ptrdiff_t>(count), FILTERED);
    return stack;
}

} // namespace

TEST(FRAME_FILTER_TEST, PassesOverWhatIsNotTheHostsOwn) {
    // Of each member of a record, what is passed over and, behind it, what isn't.
    const struct {
        char* (*member)(MEM_ADDRESS_TRACKER& record);
        std::vector<const char*> filtered, charged;
    } cases[] = {
        {[](auto& record) { return record.function_name; },
         {"", "std::vector<int>::grow()", "mem_read", "MEM_MANAGER::x()", "operator new[](unsigned long)",
          "KTL_LIST::add()", "boost::any::any()", "tbb::task::run()", "ntl::list::add()"},
         {"parse()", "my::std::f()", "memory_read", "operator delete(void*)"}},
        {[](auto& record) { return record.module_name; },
         {"", "vbx_mem_preload", "vbx_memory", "tbbamalloc", "Db_KvS"},
         {"tbx", "db_kvs2"}},
        {[](auto& record) { return record.file_name; },
         {"", "/rigs/x.cpp", "d:\\src\\kvs_map.cpp", "d:\\mem_pool.cpp", "d:\\kit_utils",
          "d:\\plc_zk_mem_interface", "d:\\src\\tbb_concurrent_hash_map_sys"},
         {"/opt/rigs/x.cpp", "d:\\kit_utils.cpp", "d:\\kvs_src\\map.cpp", "/kvs_map.cpp"}},
    };
    for (const auto& [member, filtered, charged] : cases) {
        const auto is_filtered = [member](const char* name) {
            MEM_ADDRESS_TRACKER record;
            for (char* other : {record.function_name, record.module_name, record.file_name})
                std::strcpy(other, "f");
            std::strcpy(member(record), name);
            return mem_frame_is_filtered(record);
        };
        for (const char* name : filtered)
            EXPECT_TRUE(is_filtered(name)) << name;
        for (const char* name : charged)
            EXPECT_FALSE(is_filtered(name)) << name;
    }
}

class ATTRIBUTION_TEST : public TRACKER_TEST {};

TEST_F(ATTRIBUTION_TEST, ChargesTheFirstFrameOfTheHostAndAsksForEachAddressOnce) {
    set_variable("mem_profile_with_incomplete_fileline_info", "on");
    fake_define_symbol(0x500, {"no_line", "", 0, "parser"});
    fake_define_symbol(0x501, {"", "", 0, "parser"});
    start(MEM_GRANULARITY_PER_FILELINE);
    for (std::uint64_t block = 0xA000; block < 0xA020; block += 16)
        allocate(block, 16, {FILTERED, FILTERED + 1, PARSE, QUERY});
    allocate(0xB000, 16, {FILTERED, 0, QUERY}); // a frame of zero
    allocate(0xC000, 16, {0x501, 0x500});
    EXPECT_EQ(rendered_sites(), "OTHER cur 16/1 max 16/1 peak 0/0 cum 16/1 req 16 mis 0\n"
                                "no_line cur 16/1 max 16/1 peak 0/0 cum 16/1 req 16 mis 0\n"
                                "parse cur 32/2 max 32/2 peak 0/0 cum 32/2 req 32 mis 0\n");
    EXPECT_EQ(fake_line_queries(), 5); // none of query, which stands behind the charged frame
    MEM_ADDRESS_TRACKER site;
    ASSERT_TRUE(mem_get_address_tracker(reinterpret_cast<void*>(0xC000), site));
    EXPECT_STREQ(site.file_name, "Unknown");
}

TEST_F(ATTRIBUTION_TEST, LooksDeeperOnlyBehindAFullCapture) {
    start(MEM_GRANULARITY_PER_LIBRARY);
    const struct {
        FAKE_STACK stack;
        int parsed, others; // blocks so far
        std::size_t captures;
    } cases[] = {{filtered_frames(10, {PARSE}), 1, 0, 1}, {filtered_frames(11, {PARSE}), 2, 0, 2},
                 {filtered_frames(60, {PARSE}), 3, 0, 2}, {filtered_frames(61, {PARSE}), 3, 1, 2},
                 {filtered_frames(10), 3, 2, 1},          {{}, 3, 3, 1}};
    std::uint64_t block = 0xA000;
    for (const auto& [stack, parsed, others, captures] : cases) {
        SCOPED_TRACE(stack.size());
        fake_captures().clear();
        allocate(block += 16, 16, stack);
        EXPECT_EQ(fake_captures().size(), captures);
        if (captures == 2) {
            EXPECT_EQ(fake_captures()[1].max_frames, 50);
            EXPECT_EQ(fake_captures()[1].skip_frames, 11);
        }
        EXPECT_EQ(module_record("parser").current_blocks, parsed);
        EXPECT_EQ(module_record("OTHER").current_blocks, others);
    }
}

TEST_F(ATTRIBUTION_TEST, KeepsAndCutsWhatTheServiceSays) {
    fake_define_symbol(0x600, {std::string(2000, 'f'), std::string(257, 'p'), 7, std::string(65, 'm')});
    const MEM_ADDRESS_TRACKER record = resolved(0x600);
    EXPECT_EQ(record.function_name, std::string(512, 'f'));
    EXPECT_EQ(record.file_name, std::string(256, 'p'));
    EXPECT_EQ(record.module_name, std::string(64, 'm'));
    fake_define_symbol(0x701, {"bare", "", 0, "bare"});
    EXPECT_STREQ(resolved(0x701).module_name, "bare");
    EXPECT_EQ(fake_refreshes(), 0);
    fake_define_symbol(0x700, {"late", "/late.cpp", 5, "late", false}); // of a module that isn't listed yet
    EXPECT_STREQ(resolved(0x700).file_name, "/late.cpp");
    EXPECT_EQ(fake_refreshes(), 1);
    fake_set_symbol_query_hook([](std::uint64_t) { throw std::bad_alloc(); });
    EXPECT_STREQ(resolved(PARSE).module_name, "");
    fake_set_symbol_query_hook({});
    EXPECT_STREQ(resolved(PARSE).module_name, "parser"); // and the lock is free again
}

// Threads with known addresses go on while another describes a new one; two threads that meet one new address
// charge one record.
TEST_F(ATTRIBUTION_TEST, HoldsNobodyUpWhileItDescribes) {
    start(MEM_GRANULARITY_PER_FILELINE);
    allocate(0xA000, 16, {PARSE});
    std::atomic<bool> describing{false}, known_event_is_through{false};
    fake_set_symbol_query_hook([&](std::uint64_t) {
        describing = true;
        while (!known_event_is_through)
            std::this_thread::yield();
    });
    auto threads = run_on_threads(2, [](std::uint64_t thread) { allocate(0xB000 + thread, 16, {EXPAND}); });
    while (!describing)
        std::this_thread::yield();
    allocate(0xD000, 16, {PARSE});
    known_event_is_through = true;
    threads.clear();
    EXPECT_EQ(rendered_sites(), "parse cur 32/2 max 32/2 peak 0/0 cum 32/2 req 32 mis 0\n"
                                "expand cur 32/2 max 32/2 peak 0/0 cum 32/2 req 32 mis 0\n");
}
