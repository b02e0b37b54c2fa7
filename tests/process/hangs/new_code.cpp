// A library whose functions allocate at addresses that nobody has resolved yet: a new copy at each load.
#include <cstdlib>

template <int N>
[[gnu::noinline]] void allocate_from() {
    void* volatile block = std::malloc(100 + N);
    std::free(block);
    if constexpr (N > 0)
        allocate_from<N - 1>();
}

extern "C" __attribute__((visibility("default"))) void allocate_from_new_code() {
    allocate_from<20>();
}
