// Queries from threads whose stack is far smaller than what reading symbols takes.
#include "helpers.h"
#include "vbx/platform/debug_symbols/scratch_stack.h"

#include <pthread.h>

#include <csignal>
#include <new>
#include <utility>

namespace {

// Some 970 characters when decorated, just below the limit for undecorating.
template <class NUMBERS>
__attribute__((noinline)) void long_named(NUMBERS*) {}
constexpr auto long_named_code = &long_named<std::make_integer_sequence<int, 170>>;

class SMALL_STACKS : public SYMBOL_TEST, public testing::WithParamInterface<std::size_t> {};

TEST_P(SMALL_STACKS, hold_a_whole_query) {
    static ANSWER answer;
    answer = {};
    pthread_attr_t attributes;
    ASSERT_EQ(pthread_attr_init(&attributes), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&attributes, GetParam()), 0);
    pthread_t thread = 0;
    const auto work = [](void*) -> void* {
        answer = ask(reinterpret_cast<void*>(long_named_code));
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attributes, work, nullptr), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attributes);
    EXPECT_NE(answer.function.find("long_named<std::integer_sequence<int, 0, 1, 2,"), std::string::npos)
        << answer.function;
    EXPECT_EQ(std::filesystem::path(answer.file).filename(), "small_stacks_test.cpp");
    EXPECT_EQ(answer.module, "debug_symbols_test");
}

INSTANTIATE_TEST_SUITE_P(bytes, SMALL_STACKS, testing::Values(16384, 32768, 65536));

TEST(SCRATCH_STACK, gives_exceptions_back_and_signals_afterwards) {
    static int handled;
    handled = 0;
    const auto handler_before = std::signal(SIGUSR1, [](int) { ++handled; });
    int handled_inside = -1;
    const auto work = [&]() -> int {
        std::raise(SIGUSR1);
        handled_inside = handled;
        throw std::bad_alloc();
    };
    EXPECT_THROW(sym_with_room(work), std::bad_alloc);
    EXPECT_EQ(handled_inside, 0);
    EXPECT_EQ(handled, 1);
    std::signal(SIGUSR1, handler_before);
}

} // namespace
