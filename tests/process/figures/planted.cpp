// Allocation sites whose figures are known beforehand. The line of each is found by its mark, its figures
// stand in the test.
//
//     all of them -> some are freed -> [64 MiB block: the high tide] -> more are freed -> the end
//
// What is live at the high tide is each site's peak: nothing else in the process comes near it.
#include "planted.h"

#include <vbx/mem.h>

#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <vector>

static MEM_INITIALIZER mem_initializer("planted");

namespace planted {

char* aligned;
char* left;
char* handed_over[5];
char* large_handed_over;
char* from_thread;
void* from_malloc[10];
void* from_calloc;
void* grown;

[[gnu::noinline]] void allocate_as_in_c() {
    for (void*& block : from_malloc) {
        block = std::malloc(100); // SITE malloc
        KEEP(block);
    }
    from_calloc = std::calloc(7, 10); // SITE calloc
    grown = std::malloc(100);         // SITE before_growth
    KEEP(grown);
    grown = std::realloc(grown, 5000); // SITE growth
    KEEP(grown);
}

[[gnu::noinline]] void allocate_plainly() {
    left = new char[200]; // SITE plain_new
    KEEP(left);
    delete[] left;
    left = new char[200]; // SITE plain_new_again
    KEEP(left);
    aligned = static_cast<char*>(::operator new (100, std::align_val_t{64})); // SITE aligned
    KEEP(aligned);
}

template <class T>
[[gnu::noinline]] void allocate_in_template() {
    left = reinterpret_cast<char*>(new T[20]); // SITE template
    KEEP(left);
}

[[gnu::always_inline]] inline char* from_inlined_function() {
    char* const result = new char[1000];
    KEEP(result);
    return result;
}

[[gnu::noinline]] void call_inlined_function() {
    left = from_inlined_function(); // SITE inlined
    KEEP(left);
}

[[gnu::noinline]] void grow_vector(std::vector<int>& numbers) {
    for (int number = 0; number < 5; ++number)
        numbers.push_back(number); // SITE vector
    KEEP(&numbers);
}

[[gnu::noinline]] void fill_string(std::string& text) {
    text.assign(1000, 'x'); // SITE string
    KEEP(&text);
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
    std::vector<int> numbers;
    std::string text;
    allocate_as_in_c();
    allocate_plainly();
    allocate_in_template<long>();
    call_inlined_function();
    grow_vector(numbers);
    fill_string(text);
    allocate_for_other_thread();
    const auto from_lambda = []() __attribute__((noinline)) {
        left = new char[800]; // SITE lambda
        KEEP(left);
    };
    from_lambda();
    left = library_buffer();
    run_on_thread(allocate_on_thread);

    for (int index = 0; index < 4; ++index)
        std::free(from_malloc[index]);
    run_on_thread(free_on_other_thread);
    high_tide();

    for (int index = 4; index < 6; ++index) // four of the ten stay
        std::free(from_malloc[index]);
    std::free(from_calloc);
    std::free(grown);
    ::operator delete (aligned, std::align_val_t{64});
    delete[] from_thread;
}
