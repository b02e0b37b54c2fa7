// Four threads that use every entry of the malloc family, throw, and load and unload a library. What is
// allocated by one thread is partly freed by another.
#include <dlfcn.h>
#include <malloc.h>

#include <algorithm>
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

void use_malloc_family(unsigned step) {
    const std::size_t size = 1 + step * 7919U % 30000;
    char* block = static_cast<char*>(std::calloc(1, size));
    const bool is_zero = std::count(block, block + size, 0) == static_cast<long>(size);
    std::memset(block, 1, size);
    block = static_cast<char*>(std::realloc(block, size * 2));
    void* aligned = nullptr;
    if (!is_zero || block[size - 1] != 1 || posix_memalign(&aligned, 256, size) != 0)
        std::abort();
    hand_over(block);
    hand_over(aligned);
    hand_over(memalign(64, size));
    std::free(std::aligned_alloc(128, 1024));
    std::free(strdup("text"));
}

std::size_t load_and_unload(const char* plugin, int seed) {
    void* const library = dlopen(plugin, RTLD_NOW);
    if (library == nullptr)
        std::abort();
    const auto work = reinterpret_cast<std::size_t (*)(int)>(dlsym(library, "plugin_work"));
    const std::size_t result = work(seed);
    dlclose(library);
    return result;
}

void work(const char* plugin, std::size_t& total) {
    for (unsigned step = 0; step < 200; ++step) {
        use_malloc_family(step);
        try {
            throw std::runtime_error(std::string(100, 'e'));
        } catch (const std::exception& thrown) {
            total += std::strlen(thrown.what());
        }
        if (step % 10 == 0)
            total += load_and_unload(plugin, static_cast<int>(step));
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
