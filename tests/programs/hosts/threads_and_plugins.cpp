// Four threads that throw, and load and unload a library. What is allocated by one thread is partly freed by
// another.
#include <dlfcn.h>
#include <malloc.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace {

std::mutex exchange_lock;
std::vector<void*> exchange;

void hand_over(void* block) {
    const std::lock_guard guard(exchange_lock);
    exchange.push_back(block);
    if (exchange.size() > 64) {
        std::free(exchange[32]);
        exchange.erase(exchange.begin() + 32);
    }
}

std::size_t load_and_unload(const char* library, int depth) {
    void* const handle = dlopen(library, RTLD_NOW);
    if (handle == nullptr)
        std::abort();
    const int result = reinterpret_cast<int (*)(int)>(dlsym(handle, "nest"))(depth);
    dlclose(handle);
    return static_cast<std::size_t>(result);
}

void work(const char* library, std::size_t& total) {
    for (std::size_t step = 0; step < 200; ++step) {
        const std::size_t size = 1 + step * 7919 % 30000;
        hand_over(std::realloc(std::calloc(1, size), size * 2));
        hand_over(memalign(64, size));
        try {
            throw std::runtime_error(std::string(100, 'e'));
        } catch (const std::exception& thrown) {
            total += std::strlen(thrown.what());
        }
        if (step % 10 == 0)
            total += load_and_unload(library, static_cast<int>(step % 7));
    }
}

} // namespace

int main(int, char** arguments) {
    std::size_t totals[4] = {};
    std::vector<std::thread> threads;
    for (std::size_t& total : totals)
        threads.emplace_back(work, arguments[1], std::ref(total));
    for (std::thread& thread : threads)
        thread.join();
    for (const std::size_t total : totals)
        std::printf("%zu\n", total);
    return 7;
}
