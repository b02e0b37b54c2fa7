#include "tests/unit/tracker/tracker_fixture.h"

#include "vbx/mem/mem_tbb_tracker/records/site_table.h"
#include "vbx/mem/tracker.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <sstream>

namespace {

std::mutex messages_lock;
std::string messages;

// Comes inside events as well, where the heap may be made to fail: no more is kept than there is room for.
bool keep_message(const char* tag, const char* format, std::va_list args) {
    const std::lock_guard guard(messages_lock);
    char text[200];
    std::vsnprintf(text, sizeof text, format, args);
    if (messages.size() + sizeof text + 20 < messages.capacity())
        messages.append(tag).append(": ").append(text).append("\n");
    return true;
}

} // namespace

TRACKER_TEST::TRACKER_TEST() {
    fake_define_symbol(PARSE, {"parse", "/src/parse.cpp", 10, "parser"});
    fake_define_symbol(EXPAND, {"expand", "/src/parse.cpp", 20, "parser"});
    fake_define_symbol(QUERY, {"query", "/src/query.cpp", 30, "engine"});
    for (std::uint64_t address = FILTERED; address < FILTERED + 0x100; ++address)
        fake_define_symbol(address, {"std::vector<int>::grow()", "/usr/include/vector", 1, "parser"});
    messages.reserve(2000);
    mem_set_msg_local_vdebug_callback(keep_message);
}

void TRACKER_TEST::start(std::uint32_t mask, const char* sample_period) {
    if (sample_period != nullptr)
        set_variable("mem_profile_library_snapshot_period", sample_period);
    mem_tbb_tracker_start(static_cast<MEM_TRACKING_GRANULARITY>(mask));
}

std::string TRACKER_TEST::take_messages() {
    const std::string taken = messages;
    messages.clear();
    return taken;
}

void allocate(std::uint64_t block, std::uint64_t size, FAKE_STACK stack, std::uint64_t requested_size) {
    fake_allocate(block, requested_size, size, std::move(stack));
}

void release(std::uint64_t block, std::uint64_t size) {
    fake_free(block, size);
}

std::string close_bin(const std::string& tag) {
    std::uint64_t open = 9, close = 9, peak = 9;
    mem_close_profile_bin(tag, &open, &close, &peak);
    return std::to_string(open) + " " + std::to_string(close) + " " + std::to_string(peak);
}

std::string rendered_sites() {
    std::map<std::uint64_t, const MEM_ADDRESS_TRACKER*> charged;
    const MEM_STILL_SITES still;
    mem_tbb_site_table->for_each([&charged](const MEM_ADDRESS_TRACKER& site) {
        if (site.cumulative_blocks != 0 || site.current_blocks != 0)
            charged[site.address] = &site;
    });
    std::ostringstream text;
    for (const auto& [address, site] : charged)
        text << (address == 0 ? "OTHER" : site->function_name) << " cur " << site->current_bytes << "/"
             << site->current_blocks << " max " << site->max_bytes << "/" << site->max_blocks << " peak "
             << site->peak_bytes << "/" << site->peak_blocks << " cum " << site->cumulative_bytes << "/"
             << site->cumulative_blocks << " req " << site->cumulative_requested_bytes << " mis "
             << site->cumulative_mismatched_bytes << "\n";
    return text.str();
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

std::string rows_of(bool (*report)(std::ostream&, std::ostream&)) {
    std::ostringstream plain, detailed;
    EXPECT_TRUE(report(plain, detailed));
    const std::string text = detailed.str();
    const std::size_t begin = text.find("\n\n") + 2;
    return text.substr(begin, text.find("Time spent") - begin);
}

void set_variable(const char* name, const char* value) {
    setenv(name, value, 1);
}

std::vector<std::jthread> run_on_threads(int count, std::function<void(std::uint64_t)> job) {
    std::vector<std::jthread> threads;
    for (int thread = 0; thread < count; ++thread)
        threads.emplace_back(job, static_cast<std::uint64_t>(thread));
    return threads;
}
