// Allocations whose site must not depend on the compiler. A mark tells what its line has allocated: how many
// blocks, how many bytes of slots, and how the function's name begins.
#include <vbx/mem.h>

#include <cstdlib>
#include <new>
#include <vector>

static MEM_INITIALIZER mem_initializer("planted");

namespace planted {

// Makes the compiler believe that the block is used: neither its allocation nor the frame of its caller goes.
void keep(const void* block) {
    __asm__ volatile("" : : "r"(block) : "memory");
}

[[gnu::noinline]] void allocate_as_in_c() {
    for (int count = 0; count < 10; ++count)
        keep(std::malloc(100));     // SITE 10 1120 planted::allocate_as_in_c()
    keep(std::calloc(7, 10));       // SITE 1 80 planted::allocate_as_in_c()
    void* grown = std::malloc(100); // SITE 1 112 planted::allocate_as_in_c()
    keep(grown);
    keep(std::realloc(grown, 5000)); // SITE 1 5376 planted::allocate_as_in_c()
}

[[gnu::noinline]] void allocate_plainly() {
    keep(new char[200]);                              // SITE 1 224 planted::allocate_plainly()
    keep(::operator new (100, std::align_val_t{64})); // SITE 1 128 planted::allocate_plainly()
}

template <class T>
[[gnu::noinline]] void allocate_in_template() {
    keep(new T[20]); // SITE 1 160 planted::allocate_in_template<long>()
    keep(nullptr);
}

[[gnu::always_inline]] inline char* from_inlined_function() {
    char* const result = new char[1000];
    keep(result);
    return result;
}

[[gnu::noinline]] void call_inlined_function() {
    keep(from_inlined_function()); // SITE 1 1024 planted::call_inlined_function()
    keep(nullptr);
}

// Room for 1, 2, 4 and 8 numbers.
[[gnu::noinline]] void grow_vector(std::vector<int>& numbers) {
    for (int number = 0; number < 5; ++number)
        numbers.push_back(number); // SITE 4 64 planted::grow_vector(
    keep(&numbers);
}

} // namespace planted

int main() {
    using namespace planted;
    std::vector<int> numbers;
    allocate_as_in_c();
    allocate_plainly();
    allocate_in_template<long>();
    call_inlined_function();
    grow_vector(numbers);
    const auto from_lambda = []() __attribute__((noinline)) {
        keep(new char[800]); // SITE 1 896 main::
        keep(nullptr);
    };
    from_lambda();
}
