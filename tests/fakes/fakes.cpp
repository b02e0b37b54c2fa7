#include "tests/fakes/fakes.h"

#include "vbx/platform/debug_symbols/debug_symbols.h"
#include "vbx/platform/os/clock.h"
#include "vbx/platform/tbbamalloc/tbbamalloc.h"
#include "vbx/platform/vbx_err/vbx_err.h"

#include <linux/membarrier.h>
#include <malloc.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <thread>
#include <utility>

namespace {
thread_local FAKE_STACK current_stack;
thread_local std::vector<FAKE_CAPTURE> captures;

constinit std::atomic<tbbk_mem_tracker_callback> hook{nullptr};
constinit std::atomic<tbbk_free_notice> notice{nullptr};
constinit std::atomic<int> threads_inside{0};
constinit thread_local int own_depth = 0;

void fire(std::uint64_t block, std::uint64_t requested_size, std::uint64_t size, bool is_allocation) {
    threads_inside += own_depth++ == 0;
    if (const auto callback = hook.load()) {
        if (const auto told_before = notice.load(); told_before != nullptr && !is_allocation)
            told_before(reinterpret_cast<const void*>(block));
        callback(reinterpret_cast<void*>(block), requested_size, size, is_allocation);
    }
    threads_inside -= --own_depth == 0;
}
} // namespace

void fake_allocate(std::uint64_t block, std::uint64_t requested_size, std::uint64_t size, FAKE_STACK stack) {
    current_stack = std::move(stack);
    fire(block, requested_size, size, true);
}
void fake_free(std::uint64_t block, std::uint64_t size) {
    fire(block, 0, size, false);
}
bool fake_hook_is_installed() {
    return hook != nullptr;
}

bool fake_free_notice_is_installed() {
    return notice != nullptr;
}

void tbbk_set_mem_tracker_callback(tbbk_mem_tracker_callback callback) noexcept {
    hook = callback;
}
bool tbbk_process_malloc_is_shim() noexcept {
    return true;
}
void tbbk_guard_forks() noexcept {}
void tbbk_set_free_check(tbbk_free_check) noexcept {}
void tbbk_set_free_notice(tbbk_free_notice new_notice) noexcept {
    notice = new_notice;
}
void* tbbk_obtain_quietly(std::size_t size) noexcept {
    return std::malloc(size);
}
void tbbk_give_back_quietly(void* block) noexcept {
    std::free(block);
}
int _set_new_mode(int) noexcept {
    return 0;
}
tbbk_new_handler _set_new_handler(tbbk_new_handler) noexcept {
    return nullptr;
}

bool tbbk_quiesce_begin(unsigned timeout_ms) noexcept {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (threads_inside != (own_depth > 0)) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::yield();
    }
    return true;
}
void tbbk_quiesce_end() noexcept {}

namespace {
// Of all threads that there ever were: words outlive their threads.
constinit std::array<TBBK_THREAD_WORDS, 4096> all_words = {};
constinit std::atomic<std::size_t> words_in_use{0};

constinit thread_local TBBK_THREAD_WORDS* own_words = nullptr;
constinit thread_local bool has_words = true;
} // namespace

void fake_live_without_words() {
    has_words = false;
}

constinit std::atomic<int> fake_fences{0};
std::atomic<bool> tbbk_threads_need_fences{
    syscall(SYS_membarrier, MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED, 0, 0) != 0};

TBBK_THREAD_WORDS* tbbk_thread_words() noexcept {
    if (!has_words)
        return nullptr;
    if (own_words == nullptr)
        own_words = &all_words.at(words_in_use++);
    return own_words;
}
TBBK_THREAD_WORDS* tbbk_next_thread_words(TBBK_THREAD_WORDS* previous) noexcept {
    TBBK_THREAD_WORDS* const next = previous != nullptr ? previous + 1 : all_words.data();
    return next != all_words.data() + words_in_use ? next : nullptr;
}
void tbbk_fence_all_threads() noexcept {
    ++fake_fences;
    if (!tbbk_threads_need_fences)
        syscall(SYS_membarrier, MEMBARRIER_CMD_PRIVATE_EXPEDITED, 0, 0);
}

std::size_t _msize(void* block) noexcept {
    return malloc_usable_size(block);
}

std::function<void()> fake_capture_hook;

namespace {
class FAKE_UNWINDER final : public ERR_UNWINDER {
  public:
    const char* describe() const override { return "fake"; }
    std::int32_t capture_stack(std::uint64_t* frames, std::int32_t max_frames, std::int32_t skip_frames,
                               std::uint64_t) override {
        captures.push_back({max_frames, skip_frames});
        if (const auto called_once = std::exchange(fake_capture_hook, nullptr))
            called_once();
        const auto size = static_cast<std::int32_t>(current_stack.size());
        const std::int32_t first = std::min(skip_frames, size);
        const std::int32_t count = std::min(max_frames, size - first);
        std::copy_n(current_stack.begin() + first, count, frames);
        return count;
    }
    std::uint64_t ask_frames(ERR_FRAME_QUESTION question, std::int32_t max_frames) override {
        for (const std::uint64_t address : current_stack) {
            if (max_frames-- == 0)
                break;
            if (const std::uint64_t answer = question(address))
                return answer;
        }
        return 0;
    }
};
FAKE_UNWINDER fake_unwinder;
} // namespace

std::uint64_t err_caller_of_allocator() {
    return current_stack.empty() ? 0 : current_stack.front();
}

ERR_UNWINDER* ERR_UNWINDER::get_default_unwinder() {
    return &fake_unwinder;
}

std::vector<FAKE_CAPTURE>& fake_captures() {
    return captures;
}

namespace {
std::map<std::uint64_t, FAKE_SYMBOL> symbols;
std::uint64_t unlisted_address = 0;

const char* text_of(std::uint64_t address, std::string FAKE_SYMBOL::*member) {
    const auto found = symbols.find(address);
    return found != symbols.end() && !(found->second.*member).empty() ? (found->second.*member).c_str()
                                                                      : nullptr;
}
} // namespace

void fake_define_symbol(std::uint64_t address, FAKE_SYMBOL symbol) {
    symbols[address] = std::move(symbol);
}
int fake_line_queries = 0, fake_refreshes = 0;
std::function<void(std::uint64_t)> fake_symbol_query_hook;

SYM_STATUS sym_get_line_from_addr(std::uint64_t address, SYM_LINE& line) {
    ++fake_line_queries;
    if (fake_symbol_query_hook)
        fake_symbol_query_hook(address);
    const char* const file = text_of(address, &FAKE_SYMBOL::file);
    if (file == nullptr)
        return SYM_STATUS::no_information;
    if (!symbols[address].is_listed) {
        unlisted_address = address;
        return SYM_STATUS::module_not_listed;
    }
    line = {file, symbols[address].line};
    return SYM_STATUS::found;
}

void sym_refresh_module_list() {
    ++fake_refreshes;
    symbols[unlisted_address].is_listed = true;
}

bool sym_from_addr(std::uint64_t address, SYM_SYMBOL& symbol) {
    symbol.name = text_of(address, &FAKE_SYMBOL::function);
    return symbol.name != nullptr;
}

void sym_undecorate_name(const char* name, char* out, std::size_t length) {
    std::snprintf(out, length, "%s", name);
}

bool sym_get_module_info(std::uint64_t address, SYM_MODULE& module) {
    module.short_name = text_of(address, &FAKE_SYMBOL::module);
    return module.short_name != nullptr;
}

namespace {
std::vector<std::int64_t> clock_readings{0};
}

void fake_set_clock(std::vector<std::int64_t> readings) {
    clock_readings = std::move(readings);
}

std::int64_t os_clock() {
    const std::int64_t now = clock_readings.front();
    if (clock_readings.size() > 1)
        clock_readings.erase(clock_readings.begin());
    return now;
}
