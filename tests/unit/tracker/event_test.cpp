// From a stack to the site that is charged; what allocations and frees move that a random run doesn't bring
// about; and the table of event callbacks.

#include "tests/unit/tracker/tracker_fixture.h"
#include "vbx/mem/mem_tbb_tracker/attribution/frame_filter.h"
#include "vbx/mem/mem_tbb_tracker/attribution/resolve.h"
#include "vbx/mem/mem_tbb_tracker/events/threshold_peak.h"

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
    MEM_ADDRESS_TRACKER frame;
    for (char* member : {frame.function_name, frame.module_name, frame.file_name})
        std::strcpy(member, "f");
    const auto expect = [&frame](bool is_filtered, char* member, std::initializer_list<const char*> names) {
        for (const char* name : names)
            EXPECT_EQ(mem_frame_is_filtered((std::strcpy(member, name), frame)), is_filtered) << name;
        std::strcpy(member, "f");
    };
    expect(true, frame.function_name,
           {"", "std::vector<int>::grow()", "mem_read", "MEM_MANAGER::x()", "operator new[](unsigned long)",
            "KTL_LIST::add()", "boost::any::any()", "tbb::task::run()", "ntl::list::add()"});
    expect(false, frame.function_name, {"parse()", "my::std::f()", "memory_read", "operator delete(void*)"});
    expect(true, frame.module_name, {"", "vbx_mem_preload", "vbx_memory", "tbbamalloc", "Db_KvS"});
    expect(false, frame.module_name, {"tbx", "db_kvs2"});
    expect(true, frame.file_name,
           {"", "/rigs/x.cpp", "d:\\src\\kvs_map.cpp", "d:\\mem_pool.cpp", "d:\\kit_utils",
            "d:\\plc_zk_mem_interface", "d:\\src\\tbb_concurrent_hash_map_sys"});
    expect(false, frame.file_name,
           {"/opt/rigs/x.cpp", "d:\\kit_utils.cpp", "d:\\kvs_src\\map.cpp", "/kvs_map.cpp"});
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
    EXPECT_EQ(fake_line_queries, 5); // none of query, which stands behind the charged frame
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
    } cases[] = {{filtered_frames(10, {PARSE}), 1, 0, 1},
                 {filtered_frames(11, {PARSE}), 2, 0, 2},
                 {filtered_frames(60, {PARSE}), 3, 0, 2},
                 {filtered_frames(61, {PARSE}), 3, 1, 2},
                 // Frames that are known need no capture.
                 {filtered_frames(10), 3, 2, 0},
                 {{}, 3, 3, 0},
                 {filtered_frames(60, {PARSE}), 4, 3, 0},
                 {filtered_frames(61, {PARSE}), 4, 4, 0}};
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
    EXPECT_EQ(fake_refreshes, 0);
    fake_define_symbol(0x700, {"late", "/late.cpp", 5, "late", false}); // of a module that isn't listed yet
    EXPECT_STREQ(resolved(0x700).file_name, "/late.cpp");
    EXPECT_EQ(fake_refreshes, 1);
    fake_symbol_query_hook = [](std::uint64_t) { throw std::bad_alloc(); };
    EXPECT_STREQ(resolved(PARSE).module_name, "");
    fake_symbol_query_hook = {};
    EXPECT_STREQ(resolved(PARSE).module_name, "parser"); // and the lock is free again
}

// Threads with known addresses go on while another describes a new one; two threads that meet one new address
// charge one record.
TEST_F(ATTRIBUTION_TEST, HoldsNobodyUpWhileItDescribes) {
    start(MEM_GRANULARITY_PER_FILELINE);
    allocate(0xA000, 16, {PARSE});
    std::atomic<bool> describing{false}, known_event_is_through{false};
    fake_symbol_query_hook = [&](std::uint64_t) {
        describing = true;
        while (!known_event_is_through)
            std::this_thread::yield();
    };
    auto threads = run_on_threads(2, [](std::uint64_t thread) { allocate(0xB000 + thread, 16, {EXPAND}); });
    while (!describing)
        std::this_thread::yield();
    allocate(0xD000, 16, {PARSE});
    known_event_is_through = true;
    threads.clear();
    EXPECT_EQ(rendered_sites(), "parse cur 32/2 max 32/2 peak 0/0 cum 32/2 req 32 mis 0\n"
                                "expand cur 32/2 max 32/2 peak 0/0 cum 32/2 req 32 mis 0\n");
}

// ---- what an event moves

class EVENT_TEST : public TRACKER_TEST {};

// Its free was never seen. The sites keep the second allocation.
TEST_F(EVENT_TEST, ABlockAllocatedTwiceHasOneOwner) {
    start(MEM_GRANULARITY_PER_FILELINE);
    allocate(0xA000, 64, {PARSE});
    allocate(0xA000, 64, {QUERY});
    release(0xA000, 64);
    EXPECT_EQ(rendered_sites(), "parse cur 64/1 max 64/1 peak 0/0 cum 64/1 req 64 mis 0\n"
                                "query cur 0/0 max 64/1 peak 0/0 cum 64/1 req 64 mis 0\n");
}

// A free of another thread comes while the block that makes the peak is on its way into the tables.
TEST_F(EVENT_TEST, APeakHasNoBlockThatTheTablesLack) {
    start(MEM_GRANULARITY_PER_FILELINE);
    allocate(0xA000, 100, {PARSE});
    fake_capture_hook = [] { run_on_threads(1, [](std::uint64_t) { release(0xA000, 100); }); };
    allocate(0xB000, 1 << 20, {QUERY});
    allocate(0xC000, 16, {PARSE});
    release(0xC000, 16);
    EXPECT_EQ(mem_threshold_peak_bytes.load(), (1 << 20) + 16);
    EXPECT_NE(rendered_sites().find("query cur 1048576/1 max 1048576/1 peak 1048576/1"), std::string::npos);
}

TEST_F(EVENT_TEST, PrintsTheTimelineIndexOnEveryEighthSample) {
    start(MEM_GRANULARITY_PER_FILELINE, "2");
    testing::internal::CaptureStdout();
    for (std::uint64_t block = 0; block < 18; ++block)
        allocate(0xA000 + 16 * block, 16, {PARSE});
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Debug: MEM: Memory tracking: at timeline index 0 with total memory 16\n"
              "Debug: MEM: Memory tracking: at timeline index 8 with total memory 272\n");
}

TEST_F(EVENT_TEST, ScopeGuardStopsTheGlobalStatisticsAlone) {
    start(MEM_GRANULARITY_PER_BIN | MEM_GRANULARITY_PER_FILELINE);
    for (const bool was_on : {true, false}) {
        mem_set_tbb_track_alloc_dealloc(was_on);
        {
            const MEM_TBB_NO_TRACK_ALLOC_DEALLOC_UNTIL_SCOPE_EXIT guard;
            allocate(0xA000 + was_on, 16, {PARSE});
            mem_set_tbb_track_alloc_dealloc(!was_on);
        }
        EXPECT_EQ(mem_get_tbb_track_alloc_dealloc(), was_on);
    }
    EXPECT_EQ(mem_get_current_bytes(), 0U);
    EXPECT_EQ(rendered_sites(), "parse cur 32/2 max 32/2 peak 0/0 cum 32/2 req 32 mis 0\n");
}

// ---- callbacks

namespace {

thread_local std::string calls;
std::atomic<long> counted_calls{0};

template <char NAME>
void callback(void*, std::uint64_t, std::uint64_t, bool) {
    calls += NAME;
    ++counted_calls;
}
template <char... NAMES>
void add_callbacks() {
    (mem_add_callback_function(callback<NAMES>), ...);
}
std::string calls_of_one_event() {
    calls.clear();
    allocate(0xA000, 16, {});
    return calls;
}

} // namespace

class CALLBACK_TABLE_TEST : public TRACKER_TEST {};

TEST_F(CALLBACK_TABLE_TEST, HoldsSixteenInOrderOfAdding) {
    add_callbacks<'a', 'a'>();
    EXPECT_EQ(calls_of_one_event(), "a");
    add_callbacks<'b', 'c'>();
    EXPECT_EQ(calls_of_one_event(), "abc");
    mem_remove_callback_function(callback<'b'>);
    mem_remove_callback_function(callback<'d'>);
    EXPECT_EQ(calls_of_one_event(), "ac");
    mem_remove_callback_function(callback<'a'>);
    EXPECT_EQ(calls_of_one_event(), "c");
    start(0);
    mem_enable_tracking(MEM_GRANULARITY_PER_BIN); // the event handler is one of them
    EXPECT_EQ(calls_of_one_event(), "c");
    mem_disable_tracking(MEM_GRANULARITY_PER_BIN);
    EXPECT_EQ(calls_of_one_event(), "c");
    EXPECT_EQ(mem_get_current_bytes(), 16U);
    mem_remove_callback_function(callback<'c'>);
    EXPECT_FALSE(fake_hook_is_installed());
    add_callbacks<'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 'i', 'j', 'k', 'l', 'm', 'n', 'o', 'p'>();
    EXPECT_EQ(calls_of_one_event(), "abcdefghijklmnop");
    EXPECT_DEATH(add_callbacks<'q'>(), "MEM: internal error: Change the size of callback_fns to increase the "
                                       "number of allowed callbacks");
}

// A change of the table is one step for an event: it calls the old entries or the new ones, none twice.
TEST_F(CALLBACK_TABLE_TEST, ChangesUnderRunningEvents) {
    add_callbacks<'a', 'b'>();
    std::atomic<bool> stop{false};
    std::atomic<long> events{0};
    auto threads = run_on_threads(2, [&](std::uint64_t) {
        for (; !stop; ++events)
            calls_of_one_event();
    });
    for (int change = 0; change < 2000; ++change) {
        mem_remove_callback_function(callback<'a'>);
        add_callbacks<'a'>();
    }
    stop = true;
    threads.clear();
    EXPECT_GE(counted_calls, events);
    EXPECT_LE(counted_calls, 2 * events);
}
