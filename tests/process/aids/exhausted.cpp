// A host that runs out of memory: how many threads do, by which way, and what stands in the handler's slot.
#include <vbx/mem.h>

#include <pthread.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <iostream> // an exit locks standard output to flush it
#include <latch>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace {

std::size_t block_size = 0;
std::string way;

void* volatile latest;
MEM_UTILS_CHUNK_ALLOC chunks;
int opened = 0;
std::string label;

[[noreturn]] void exhaust() {
    for (;;) {
        if (way == "new")
            latest = ::operator new(block_size);
        else if (way == "chunk")
            latest = chunks.chunk_malloc(block_size, 8);
        else if (way == "bins")
            mem_open_profile_bin(std::string(block_size, 'x') + std::to_string(++opened), "tag");
        else if (way == "label")
            mem_set_timeline_label(label);
        else
            latest = std::malloc(block_size);
    }
}

// Each says so by a system call, so that every run of it is seen.
void say(const char* text) {
    if (write(STDOUT_FILENO, text, std::char_traits<char>::length(text)) < 0)
        std::_Exit(7);
}
void return_from_handler() {
    say("handler\n");
}
// A block of the size that all memory is full of: only the reserve has room for it.
void use_reserve() {
    latest = std::malloc(block_size);
    say("handler\n");
}
void exhaust_in_handler() {
    say("handler\n");
    exhaust();
}

// Another thread forks while this one takes the last steps, which the child has to do without.
std::atomic<bool> is_handling{false}, is_child_done{false};
void wait_for_child() {
    say("handler\n");
    is_handling = true;
    while (!is_child_done)
        usleep(1000);
}
void fork_while_handling() {
    while (!is_handling)
        usleep(1000);
    const pid_t child = fork();
    if (child == 0)
        mem_out_of_memory();
    int status = 0;
    waitpid(child, &status, 0);
    if (status != 1 << 8)
        std::_Exit(8);
    is_child_done = true;
}

} // namespace

// The number of threads (0: the first one alone), the way, a block's size, the handler's name.
int main(int, char** arguments) {
    const int count = std::stoi(arguments[1]);
    way = arguments[2];
    block_size = std::stoul(arguments[3]);
    const std::string handler = arguments[4];
    const rlimit limit{200U << 20, 200U << 20};
    if (setrlimit(RLIMIT_AS, &limit) != 0)
        return 1;
    std::printf("in the buffer\n");
    if (handler != "unset") // a thread sets up the rest
        mem_set_out_of_memory_handler(handler == "reserve"    ? use_reserve
                                      : handler == "returns"  ? return_from_handler
                                      : handler == "exhausts" ? exhaust_in_handler
                                      : handler == "waits"    ? wait_for_child
                                                              : nullptr);
    if (way == "label")
        label.assign(block_size, 'x');
    if (way == "at_end")
        return std::atexit(exhaust);
    // Together: a thread that can't be started any more would be another end.
    std::latch all_are_there(count + 1);
    std::vector<std::thread> threads;
    for (int index = 0; index < count; ++index)
        threads.emplace_back([&all_are_there] {
            if (way == "locked")
                flockfile(stdout);
            all_are_there.arrive_and_wait();
            if (way == "fork")
                fork_while_handling();
            if (way == "locked") // the first thread runs out in front of it
                std::this_thread::sleep_for(std::chrono::milliseconds(200));
            exhaust();
        });
    all_are_there.arrive_and_wait();
    exhaust();
}
