#include "tests/unit/tracker/tracker_fixture.h"

#include "vbx/mem/mem_tbb_tracker/records/site_table.h"
#include "vbx/mem/tracker.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>

namespace {

std::string rendered(const MEM_ADDRESS_TRACKER& site) {
    char text[1024];
    const auto number = [](std::int64_t value) { return static_cast<long long>(value); };
    std::snprintf(text, sizeof text,
                  "%s cur %lld/%d max %lld/%d peak %lld/%d cum %lld/%lld req %lld mis %lld",
                  site.address == 0 ? "OTHER" : site.function_name, number(site.current_bytes),
                  site.current_blocks, number(site.max_bytes), site.max_blocks, number(site.peak_bytes),
                  site.peak_blocks, number(site.cumulative_bytes), number(site.cumulative_blocks),
                  number(site.cumulative_requested_bytes), number(site.cumulative_mismatched_bytes));
    return text;
}

bool was_touched(const MEM_ADDRESS_TRACKER& site) {
    return site.cumulative_blocks != 0 || site.current_blocks != 0 || site.current_bytes != 0;
}

} // namespace

TRACKER_TEST::TRACKER_TEST() {
    fake_define_symbol(PARSE, {"parse", "/src/parse.cpp", 10, "parser"});
    fake_define_symbol(EXPAND, {"expand", "/src/parse.cpp", 20, "parser"});
    fake_define_symbol(QUERY, {"query", "/src/query.cpp", 30, "engine"});
    for (std::uint64_t address = FILTERED; address < FILTERED + 0x100; ++address)
        fake_define_symbol(address, {"std::vector<int>::grow()", "/usr/include/vector", 1, "parser"});
    mem_set_msg_local_vdebug_callback([](const char*, const char*, std::va_list) { return true; });
}

void TRACKER_TEST::start(std::uint32_t mask) {
    mem_tbb_tracker_start(static_cast<MEM_TRACKING_GRANULARITY>(mask));
}

EMPTY_FOLDER::EMPTY_FOLDER() {
    char folder[] = "/tmp/tracker_test_XXXXXX";
    m_folder = mkdtemp(folder);
    std::filesystem::current_path(m_folder);
}

EMPTY_FOLDER::~EMPTY_FOLDER() {
    std::filesystem::remove_all(m_folder);
}

std::string contents(const std::string& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void allocate(std::uint64_t block, std::uint64_t size, FAKE_STACK stack, std::uint64_t requested_size) {
    const FAKE_STACK_SCOPE scope(std::move(stack));
    fake_allocate(block, requested_size, size);
}

void release(std::uint64_t block, std::uint64_t size) {
    fake_free(block, size);
}

std::string rendered_sites() {
    std::map<std::uint64_t, std::string> lines;
    const MEM_SPIN_GUARD guard(mem_site_lock);
    mem_tbb_site_table->for_each([&lines](const MEM_ADDRESS_TRACKER& site) {
        if (was_touched(site))
            lines[site.address] = rendered(site);
    });
    std::string text;
    for (const auto& [address, line] : lines)
        text += line + "\n";
    return text;
}

std::string rendered_site(std::uint64_t address) {
    const MEM_SPIN_GUARD guard(mem_site_lock);
    const MEM_ADDRESS_TRACKER* const site = mem_tbb_site_table->find(address);
    return site != nullptr ? rendered(*site) : "none";
}

MEMORY_TRACKER_BASE module_record(const std::string& name) {
    MEMORY_TRACKER_BASE record;
    EXPECT_TRUE(mem_get_module_tracker(name, record)) << name;
    return record;
}

MEMORY_TRACKER_BASE catch_all() {
    MEM_ADDRESS_TRACKER record;
    EXPECT_TRUE(mem_get_address_tracker(nullptr, record));
    return record;
}

void set_variable(const char* name, const char* value) {
    setenv(name, value, 1);
}
