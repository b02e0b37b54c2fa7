// Allocation sites whose figures are known beforehand. The line of each is found by its mark, its figures
// stand in the test.
//
//     all of them -> some are freed -> [64 MiB block: the high tide] -> more are freed -> the end
//
// What is live at the high tide is each site's peak: nothing else in the process comes near it.

#include "planted.h"

#include <vbx/mem.h>

#include <cstdio>
#include <new>
#include <string>
#include <vector>

static MEM_INITIALIZER mem_initializer("planted");

namespace planted {

int* ints;
int* more_ints;
long* longs;
char* aligned;
char* inlined;
char* from_library;
char* handed_over[5];
char* large_handed_over;
char* from_thread;
std::vector<int>* numbers;
std::string* text;

[[gnu::noinline]] void allocate_plainly() {
    ints = new int[50]; // SITE plain_new
    KEEP(ints);
    delete[] ints;
    ints = new int[50]; // SITE plain_new_again
    KEEP(ints);
}

template <class T>
[[gnu::noinline]] T* from_template() {
    T* const result = new T[20]; // SITE template
    KEEP(result);
    return result;
}

[[gnu::always_inline]] inline char* from_inlined_function() {
    char* const result = new char[1000];
    KEEP(result);
    return result;
}

[[gnu::noinline]] void call_inlined_function() {
    inlined = from_inlined_function(); // SITE inlined
    KEEP(inlined);
}

[[gnu::noinline]] void grow_vector() {
    for (int number = 0; number < 5; ++number)
        numbers->push_back(number); // SITE vector
    KEEP(numbers);
}

[[gnu::noinline]] void fill_string() {
    text->assign(1000, 'x'); // SITE string
    KEEP(text);
}

[[gnu::noinline]] void allocate_aligned() {
    aligned = static_cast<char*>(::operator new (100, std::align_val_t{64})); // SITE aligned
    KEEP(aligned);
}

[[gnu::noinline]] void allocate_for_other_thread() {
    for (char*& block : handed_over)
        block = new char[500];           // SITE handed_over
    large_handed_over = new char[20000]; // SITE large_handed_over
    KEEP(large_handed_over);
}

[[gnu::noinline]] void free_on_other_thread() {
    for (int index = 0; index < 3; ++index)
        delete[] handed_over[index];
    delete[] large_handed_over;
}

[[gnu::noinline]] void allocate_on_thread() {
    from_thread = new char[300]; // SITE thread
    KEEP(from_thread);
}

[[gnu::noinline]] void high_tide() {
    char* const sea = new char[64 << 20]; // SITE tide
    KEEP(sea);
    delete[] sea;
}

} // namespace planted

int main() {
    using namespace planted;
    mem_set_tbb_exe_string("planted");
    std::fprintf(stderr, "%p\n", library_base());
    numbers = new std::vector<int>; // SITE vector_object
    text = new std::string;         // SITE string_object
    c_allocate();
    allocate_plainly();
    longs = from_template<long>();
    call_inlined_function();
    grow_vector();
    fill_string();
    allocate_aligned();
    allocate_for_other_thread();
    const auto from_lambda = []() __attribute__((noinline)) {
        more_ints = new int[200]; // SITE lambda
        KEEP(more_ints);
    };
    from_lambda();
    from_library = library_buffer();
    run_on_thread(allocate_on_thread);

    c_free_before_tide();
    run_on_thread(free_on_other_thread);
    high_tide();

    c_free_after_tide();
    delete numbers;
    delete text;
    ::operator delete (aligned, std::align_val_t{64});
    delete[] from_thread;
}
