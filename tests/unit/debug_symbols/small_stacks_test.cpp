// Queries from a thread whose stack is far smaller than what reading symbols takes.
#include "helpers.h"
#include "vbx/platform/debug_symbols/scratch_stack.h"

#include <csignal>
#include <new>
#include <utility>

namespace {

// Some 970 characters when decorated, just below the limit for undecorating.
template <class NUMBERS>
[[gnu::noinline]] void long_named(NUMBERS*) {}
constexpr auto long_named_code = &long_named<std::make_integer_sequence<int, 170>>;

TEST_F(SYMBOL_TEST, small_stack_holds_a_whole_query) {
    ANSWER answer;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 16384);
    const auto work = [](void* opaque) -> void* {
        *static_cast<ANSWER*>(opaque) = ask(reinterpret_cast<void*>(long_named_code));
        return nullptr;
    };
    pthread_t thread = 0;
    ASSERT_EQ(pthread_create(&thread, &attributes, work, &answer), 0);
    pthread_join(thread, nullptr);
    EXPECT_NE(answer.function.find("long_named<std::integer_sequence<int, 0, 1, 2,"), std::string::npos);
    EXPECT_NE(answer.place.find("/small_stacks_test.cpp:"), std::string::npos) << answer.place;
}

TEST(SCRATCH_STACK, gives_exceptions_back_and_signals_afterwards) {
    static int handled = 0;
    std::signal(SIGUSR1, [](int) { ++handled; });
    const auto work = []() -> int {
        std::raise(SIGUSR1);
        EXPECT_EQ(handled, 0);
        throw std::bad_alloc();
    };
    EXPECT_THROW(sym_with_room(work), std::bad_alloc);
    EXPECT_EQ(handled, 1);
    std::signal(SIGUSR1, SIG_DFL);
}

} // namespace
