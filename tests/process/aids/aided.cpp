// A host whose debug aids are on; the first argument says what it does.
#include <vbx/mem.h>

#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr unsigned char ALLOC_BYTE = 0xA5;
constexpr unsigned char FREE_BYTE = 0xF6;
constexpr unsigned char KEPT_BYTE = 0x11;

void expect(bool holds, const char* what, std::size_t size, std::size_t alignment) {
    if (holds)
        return;
    std::fprintf(stderr, "%s: size %zu, alignment %zu\n", what, size, alignment);
    std::_Exit(1);
}

bool holds_only(const unsigned char* block, std::size_t size, unsigned char byte) {
    return std::all_of(block, block + size, [byte](unsigned char each) { return each == byte; });
}

struct NEIGHBOUR {
    unsigned char* block;
    std::size_t usable;
};

// Neighbours are what lies around each block that comes and goes: between two of them, in the slab's last
// slot and in its first. Whatever an aid writes outside of a block's own slot is written to one of them.
void watch_neighbours(std::size_t size, std::size_t alignment) {
    std::vector<NEIGHBOUR> neighbours;
    std::vector<void*> comers;
    const std::size_t pairs = size <= 8200 ? 20 : 3;
    for (std::size_t pair = 0; pair < pairs; ++pair) {
        comers.push_back(memalign(alignment, size));
        void* const neighbour = memalign(alignment, size);
        neighbours.push_back({static_cast<unsigned char*>(neighbour), malloc_usable_size(neighbour)});
        std::memset(neighbour, KEPT_BYTE, neighbours.back().usable);
    }
    for (int round = 0; round < 3; ++round) {
        for (void*& comer : comers) {
            std::free(comer);
            comer = memalign(alignment, size);
        }
        for (void* const comer : comers)
            std::memset(comer, KEPT_BYTE, malloc_usable_size(comer));
        for (const NEIGHBOUR& neighbour : neighbours)
            expect(holds_only(neighbour.block, neighbour.usable, KEPT_BYTE), "a neighbour changed", size,
                   alignment);
    }
    std::for_each(comers.begin(), comers.end(), std::free);
    for (const NEIGHBOUR& neighbour : neighbours) {
        expect(holds_only(neighbour.block, neighbour.usable, KEPT_BYTE), "a neighbour changed", size,
               alignment);
        std::free(neighbour.block);
    }
}

// A block at its usual alignment begins its slot: the caller's bytes and no others get the pattern.
void look_at_plain_block(std::size_t size) {
    void* volatile first = std::malloc(size);
    std::free(first);
    auto* const block = static_cast<unsigned char*>(std::malloc(size));
    const std::size_t usable = malloc_usable_size(block);
    expect(holds_only(block, size, ALLOC_BYTE), "the caller's bytes", size, 1);
    if (block == first && usable <= 8128)
        expect(holds_only(block + size, usable - size, FREE_BYTE), "bytes behind the caller's", size, 1);
    std::memset(block, KEPT_BYTE, size);
    auto* const moved = static_cast<unsigned char*>(std::realloc(block, 3 * size));
    expect(holds_only(moved, size, KEPT_BYTE), "the contents behind realloc", size, 1);
    std::free(moved);
    auto* const zeroed = static_cast<unsigned char*>(std::calloc(size, 1));
    expect(holds_only(zeroed, size, 0), "the zeros of calloc", size, 1);
    std::free(zeroed);
}

// Blocks that got pages of their own and shrank before the aid came: they have a small block's size now.
void shrink_before_the_aid() {
    mem_disable_alloc_patterns();
    std::vector<NEIGHBOUR> blocks;
    for (int index = 0; index < 40; ++index) {
        void* const shrunk = std::realloc(std::malloc(60'000), 1100 + 170 * static_cast<unsigned>(index));
        blocks.push_back({static_cast<unsigned char*>(shrunk), malloc_usable_size(shrunk)});
        std::memset(shrunk, KEPT_BYTE, blocks.back().usable);
    }
    mem_set_free_pattern(FREE_BYTE);
    for (std::size_t index = 0; index < blocks.size(); index += 2)
        std::free(blocks[index].block);
    for (std::size_t index = 1; index < blocks.size(); index += 2) {
        expect(holds_only(blocks[index].block, blocks[index].usable, KEPT_BYTE), "a neighbour changed",
               blocks[index].usable, 1);
        std::free(blocks[index].block);
    }
}

void look_at_all_slots() {
    mem_set_alloc_pattern(ALLOC_BYTE);
    mem_set_free_pattern(FREE_BYTE);
    for (std::size_t size = 8; size <= 16384; size += size < 1100 ? 23 : 171) {
        look_at_plain_block(size);
        for (std::size_t alignment = 8; alignment <= 16384; alignment *= 2)
            watch_neighbours(size, alignment);
    }
    shrink_before_the_aid();
}

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

// Behind the end of the tracking nothing of the log is open, and the heap still works.
void shut_down() {
    log_on_threads();
    mem_shutdown_tbb_tracking();
    drop(make(79));
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        char name[4096];
        const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
        const ssize_t length = readlink(link.c_str(), name, sizeof name);
        if (length > 0 && std::string_view(name, static_cast<std::size_t>(length)).ends_with(".log"))
            std::_Exit(1);
    }
}

} // namespace

int main(int, char** arguments) {
    const std::string action = arguments[1];
    if (action == "slots") {
        look_at_all_slots();
    } else if (action == "free_twice") {
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
    } else if (action == "shut_down") {
        shut_down();
    }
    return 9;
}
