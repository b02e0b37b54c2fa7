// A host whose debug aids are on; the first argument says what it does.
#include <vbx/mem.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

static MEM_INITIALIZER mem_initializer("aided");

namespace {

[[gnu::noinline]] void* make(std::size_t size) {
    void* volatile block = std::malloc(size);
    return block;
}
[[gnu::noinline]] void drop(void* block) {
    std::free(block);
}

// The program's own files take the numbers of all that were open.
void log_and_close_all() {
    drop(make(77));
    for (int descriptor = 3; descriptor < 1024; ++descriptor)
        close(descriptor);
    std::vector<std::FILE*> files;
    for (int index = 0; index < 600; ++index)
        files.push_back(std::fopen("own", "w"));
    drop(make(78));
}

void log_on_threads() {
    std::vector<std::jthread> threads;
    for (int index = 0; index < 4; ++index)
        threads.emplace_back([] {
            for (std::size_t round = 0; round < 500; ++round)
                drop(make(90'000 + round));
        });
}

} // namespace

int main(int, char** arguments) {
    const std::string action = arguments[1];
    if (action == "free_twice") {
        void* const block = make(std::stoul(arguments[2]));
        drop(block);
        if (arguments[3] != std::string("realloc"))
            drop(block);
        else if (std::realloc(block, 10) == nullptr)
            return 2;
    } else if (action == "close_all") {
        log_and_close_all();
    } else if (action == "threads") {
        log_on_threads();
    }
    return 9;
}
